// vklog: a logging library of named categories. Each category is bound to a configuration
// that says where lines go (file with size rotation, standard output, a vklogger UDP
// server), at which levels and with which header. Configurations come from presets, from
// key/value settings in code, or from a reloadable configuration file.
//
// Thread safety: every function may be called from any thread; a configuration may be
// re-applied while other threads log through it (a swapped-out configuration is freed by
// the last call that uses it). Only a configuration being edited belongs to one thread.
// Log through the VKLOG_* macros: they test the level before any formatting.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <pthread.h>

// ---- levels ---------------------------------------------------------------
enum : int {
    VKLOG_LEVEL_NONE = 0,
    VKLOG_LEVEL_FATAL = 1,
    VKLOG_LEVEL_ERROR = 2,
    VKLOG_LEVEL_WARN = 3,
    VKLOG_LEVEL_NOTICE = 4,
    VKLOG_LEVEL_INFO = 5,
    VKLOG_LEVEL_DEBUG = 6,
    VKLOG_LEVEL_TRACE = 7,
};

// 4-character labels by level value ("NONE", "FATA", ..., "TRAC").
extern const char *const g_vklog_level_str[8];

// Level setting: value 0..7 and the sign '<' (at most), '=' (exactly) or '>' (at least).
// Aligned to its size so that the atomic copy in the logger is lock-free with every compiler
// (clang otherwise calls the atomic library for an 8-byte object of 4-byte alignment).
struct alignas(8) vklog_level_t {
    int value;
    int inequality_sign;
};

// True when a message of `level` passes the setting `lv`.
constexpr bool vklog_level_pass(vklog_level_t lv, int level)
{
    switch (lv.inequality_sign) {
    case '<':
        return level <= lv.value;
    case '>':
        return level >= lv.value;
    case '=':
        return level == lv.value;
    default:
        return false;
    }
}

// ---- configuration --------------------------------------------------------
enum : uint8_t {
    VKLOG_OUTPUT_FILE = 1,
    VKLOG_OUTPUT_STDOUT = 2,
    VKLOG_OUTPUT_STDERR = 4,
    VKLOG_OUTPUT_VKLOGGER = 8,
};

enum : unsigned {
    VKLOG_HEADER_TIME = 1,
    VKLOG_HEADER_PID = 2,
    VKLOG_HEADER_THREAD_ID = 4,
    VKLOG_HEADER_FILE = 8,
    VKLOG_HEADER_FUNCTION = 16,
    VKLOG_HEADER_LINE = 32,
    VKLOG_HEADER_LEVEL = 64,
};

enum vklog_cfg_type_t : int {
    VKLOG_CFG_TYPE_NONE = 0,
    VKLOG_CFG_TYPE_NAME = 1,
    VKLOG_CFG_TYPE_DIRECTORY = 2,
    VKLOG_CFG_TYPE_FILENAME = 3,
    VKLOG_CFG_TYPE_OUTPUT_TYPE = 4,
    VKLOG_CFG_TYPE_FILE_PERMISSION = 5,
    VKLOG_CFG_TYPE_VKLOGGER_IP = 6,
    VKLOG_CFG_TYPE_VKLOGGER_PORT = 7,
    VKLOG_CFG_TYPE_LEVEL = 8,
    VKLOG_CFG_TYPE_HEADER_FLAG = 9,
    VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME = 10,
    VKLOG_CFG_TYPE_LIMIT_FILE_SIZE = 11,
    VKLOG_CFG_TYPE_BACKUP_DIRECTORY = 12,
    VKLOG_CFG_TYPE_BACKUP_FILE_COUNT = 13,
};

enum vklog_cfg_preset_type_t : int {
    VKLOG_CFG_PRESET_NONE = 0,
    VKLOG_CFG_PRESET_DEFAULT = 1,
    VKLOG_CFG_PRESET_DEFAULT_FILE = 2,
};

struct vklog_config_t {
    char name[128];
    unsigned int name_len;
    char out_dir[4096];
    char out_file[128];
    unsigned int out_file_len;
    char out_path[8192];
    unsigned int file_permission;
    char vklogger_ip[40];
    uint16_t vklogger_port;
    uint8_t output;
    unsigned int header_flag;
    char include_us_to_time;
    vklog_level_t level;
    unsigned int limit_size;
    char backup_dir[4096];
    char backup_path[8192];
    unsigned int backup_count;
    int count_in_use;
    vklog_config_t *next;
};

// ---- categories -----------------------------------------------------------
// A plain mutex; BasicLockable so that scoped holders use std::lock_guard<vklog_lock_t>.
struct vklog_lock_t {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

    void lock();
    void unlock();
};

struct vklog_output_file_t {
    std::atomic<int> err_no;
    std::atomic<int> backup_idx;
    std::atomic<int> backup_work;
    vklog_lock_t *fd_lock;
    // 1 while the file cannot be written (it could not be opened, is a link or not a regular
    // file, a write or a rotation failed): lines are dropped, and the first line at or after
    // retry_at_ms (monotonic clock) tries the file again. Back to 0 at the next written line.
    std::atomic<int> failing;
    std::atomic<int64_t> retry_at_ms;
    // The file's size after the last line: taken from fstat, then advanced by the bytes each
    // line writes, so most lines need no fstat. -1 when not known (the next line asks).
    std::atomic<int64_t> size{-1};
    // Lines written since the size was last taken from the file.
    std::atomic<uint32_t> size_lines;
};

struct vklog_vklogger_perf_data_t {
    uint32_t sent_success_count;
    uint32_t sent_error_count;
    uint32_t sent_size;
};

struct vklog_output_vklogger_t {
    int sock;
    int err_no;
    int is_connect;
    vklog_lock_t lock;
    vklog_vklogger_perf_data_t perf_data;
};

struct vklog_t {
    std::atomic<vklog_level_t> level; // copy of the configuration's level, read by the call sites
    vklog_config_t *config;           // guarded by config_lock
    vklog_config_t *config_temp;
    vklog_lock_t config_lock;
    vklog_output_file_t output_file;
    vklog_output_file_t output_std;
    vklog_output_vklogger_t output_vklogger;
    std::atomic<int> last_error;
    std::atomic<int> activate; // 0 = the category writes nothing
};

// The program's main category and its console debug category.
extern std::atomic<vklog_t *> g_vklog;
extern std::atomic<vklog_t *> g_vklog_console_debug;

// ---- interface ------------------------------------------------------------
// Ownership of configurations: vklog_apply_config and the initialise operations take the
// configuration they are given in every case (applied, or freed on failure or when it
// equals the one in force). A configuration that is never applied is freed with
// vklog_config_free. `err` arguments may be null.

// ---- set-up and reload ----
// Finishes `config` and applies it. 0 (with *err -4 when the UDP output could not be set
// up: the category exists and logs to its other outputs); -2 when it was not applied
// (*err -1 null configuration, -2 table full). Nothing else changes on failure.
int vklog_initialize_with_config(vklog_config_t *config, int *err);
// The DEFAULT preset named `name`, finished and applied. 0; -1 null name or longer than 127;
// -2 not applied (*err as for vklog_initialize_with_config).
int vklog_initialize_with_default_config(const char *name, int *err);
// Remembers `path` (reload allowed), loads the file and applies every configuration in it
// in order. 0 (*err holds the last apply error, if any); or the load's code: -11 cannot be
// opened (errno in *err; a symbolic link or anything but a regular file is reported at
// ERROR and counts as missing, ENOENT), -12 "[" without "]", -13 value too long, -14 invalid level;
// after a failed load nothing is applied.
int vklog_initialize_with_config_file(const char *path, int *err);
// Reloads the remembered file when reload is allowed and its modification time changed.
// Always 0; a failed load leaves the configurations in force and puts its code in *err.
int vklog_reload(int *err);
// Stores the reload path and allows reload. 0; -1 when a path is already set, for a null
// path or one of 8192 bytes or more.
int vklog_set_config_path(const char *path);
// Forbids reload. Cannot fail.
void vklog_set_reload_disable();
// The category of that name, (re)activated unless OLV_DAEMON_VKLOG_DEACTIVATE is exactly
// "true"; null when absent. A null name gives the built-in standard-output category.
vklog_t *vklog_get_category(const char *name);
// Applies one configuration: installs it in the category of its name (an identical one, or
// the one in force itself, is a no-op: no swap, no socket or backup work) or creates that
// category (at most 12; a new one stays silent until vklog_get_category or vklog_enable).
// A changed backup count removes surplus backups. 0 (with *err -4 when the UDP output could
// not be set up); -1 null configuration; -2 table full (*err -2; the configuration is freed).
int vklog_apply_config(vklog_config_t *config, int *err);

// ---- configurations ----
// A zeroed configuration, or null when out of memory.
vklog_config_t *vklog_config_new();
// A copy of a preset; null for an unknown preset or out of memory.
vklog_config_t *vklog_config_new_from_preset(vklog_cfg_preset_type_t type);
// Copies for editing (reference count and list link cleared): of a configuration, of a
// category's configuration in force, of g_vklog's, of the named category's. Null when the
// source is null or absent, or out of memory.
vklog_config_t *vklog_config_clone_from_config(const vklog_config_t *config);
vklog_config_t *vklog_config_clone_from_vklog(vklog_t *cat);
vklog_config_t *vklog_config_clone_from_global_log();
vklog_config_t *vklog_config_clone_from_category(const char *name);
// Frees a configuration that was never applied. Null is accepted.
void vklog_config_free(vklog_config_t *config);
// Sets one key from the first `length` bytes of `value` (a terminator ends it earlier).
// 0; the key's number on a rejected value (name/file over 127, unknown output word, address
// over 39, unknown level, a directory whose ${NAME} is unset or unterminated or which does
// not fit), the field keeping its value; -2 for a null configuration or value. Unknown keys
// are ignored (0).
int vklog_config_set(vklog_config_t *config, vklog_cfg_type_t key, unsigned int length, const char *value);
// Builds out_path and backup_path, defaults the file name (name, blanks as "_", ".log"),
// the size limit (10 MiB when a directory is set and none given) and the port (10010), and
// clears execute bits. May be repeated. 0; -1 for null.
int vklog_config_finish(vklog_config_t *config);
// Prints the configuration in one line on standard output. Null prints nothing.
void vklog_config_print(const vklog_config_t *config);

// ---- categories ----
// Activate (honouring OLV_DAEMON_VKLOG_DEACTIVATE) or silence a category. 0; -1 for a null
// category or an unknown name.
int vklog_enable(vklog_t *cat);
int vklog_disable(vklog_t *cat);
int vklog_enable_from_config_name(const char *name);
int vklog_disable_from_config_name(const char *name);

// Writes one line (no level filtering here: the macros filter); a message longer than the
// line buffer is cut and still ends with a newline. 0 (also for an inactive category, and
// when an output fails: the file writer's failure goes to last_error, the failure is said
// once on standard error, and the file is tried again at most once a second until it can
// be written); -1 null category or header failure; -2 no configuration (after vklog_fini).
int vklog(vklog_t *cat, const char *file, size_t file_len, const char *func, size_t func_len, long line,
          int level, const char *format, ...) __attribute__((format(printf, 8, 9)));
// Writes a header, the title and a hex dump of `size` bytes, `hex_print_column_count` bytes
// a row (16 when not 1..256). Codes as for vklog.
int vklog_hex(vklog_t *cat, const char *file, size_t file_len, const char *func, size_t func_len, long line,
              int level, int hex_print_column_count, const void *data, size_t size, const char *title_format,
              ...) __attribute__((format(printf, 11, 12)));
// Removes the category's backups numbered above its backup count. 0; -1 null category or a
// backup path without "/"; -2 no configuration; -6 directory not opened.
int vklog_cleanup_backup_file(vklog_t *cat);
// Copies the category's UDP counters. 0; -1 for a null argument.
int vklog_get_vklogger_perf_sent(vklog_t *cat, vklog_vklogger_perf_data_t *perf);

// Set g_vklog / g_vklog_console_debug. Cannot fail.
void vklog_set_global_log_handle(vklog_t *cat);
void vklog_set_global_log_console_debug_handle(vklog_t *cat);
// End of use: clears the global handles, detaches and frees every configuration (one held
// by a call in flight is freed by that call), closes UDP sockets and forgets the table and
// the reload path. Handles obtained earlier stay valid and log nothing. Cannot fail.
void vklog_fini();

// Creates every missing level of the first `len` bytes of `directory` with mode 0750.
// 0; -1 for a bad path or a level that cannot be made (reported on standard error).
int vklog_make_directory_with_parents(const char *directory, size_t len);

// The library's version texts (constant).
const char *vklog_get_version();
const char *vklog_get_simple_version();

// ---- call-site macros -----------------------------------------------------
// Evaluate the category once, test its level, and only then format. A null category logs
// nothing.
#define VKLOG_AT(cat, lvl, ...)                                                                              \
    do {                                                                                                     \
        vklog_t *vklog_cat_ = (cat);                                                                         \
        if (vklog_cat_ != nullptr &&                                                                         \
            vklog_level_pass(vklog_cat_->level.load(std::memory_order_relaxed), (lvl)))                      \
            vklog(vklog_cat_, __FILE__, sizeof(__FILE__) - 1, __func__, sizeof(__func__) - 1, __LINE__,      \
                  (lvl), __VA_ARGS__);                                                                       \
    } while (0)

#define VKLOG_FATAL(cat, ...)  VKLOG_AT(cat, VKLOG_LEVEL_FATAL, __VA_ARGS__)
#define VKLOG_ERROR(cat, ...)  VKLOG_AT(cat, VKLOG_LEVEL_ERROR, __VA_ARGS__)
#define VKLOG_WARN(cat, ...)   VKLOG_AT(cat, VKLOG_LEVEL_WARN, __VA_ARGS__)
#define VKLOG_NOTICE(cat, ...) VKLOG_AT(cat, VKLOG_LEVEL_NOTICE, __VA_ARGS__)
#define VKLOG_INFO(cat, ...)   VKLOG_AT(cat, VKLOG_LEVEL_INFO, __VA_ARGS__)
#define VKLOG_DEBUG(cat, ...)  VKLOG_AT(cat, VKLOG_LEVEL_DEBUG, __VA_ARGS__)
#define VKLOG_TRACE(cat, ...)  VKLOG_AT(cat, VKLOG_LEVEL_TRACE, __VA_ARGS__)

#define VKLOG_HEX(cat, lvl, columns, data, size, ...)                                                        \
    do {                                                                                                     \
        vklog_t *vklog_cat_ = (cat);                                                                         \
        if (vklog_cat_ != nullptr &&                                                                         \
            vklog_level_pass(vklog_cat_->level.load(std::memory_order_relaxed), (lvl)))                      \
            vklog_hex(vklog_cat_, __FILE__, sizeof(__FILE__) - 1, __func__, sizeof(__func__) - 1, __LINE__,  \
                      (lvl), (columns), (data), (size), __VA_ARGS__);                                        \
    } while (0)
