// vklog_internal.h: private declarations shared by the vklog units: the category manager,
// the line header and file writer with rotation, the configuration loader, the UDP packet
// and socket helpers. Users of the library include vklog.h only; the library's own tests
// include this header to reach the individual steps.
#pragma once

#include "vklog.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <string_view>

inline constexpr size_t VL_LINE_BUFFER_SIZE = 10240;
inline constexpr unsigned VL_MAX_CATEGORY = 12;
inline constexpr uint16_t VL_DEFAULT_VKLOGGER_PORT = 10010;
inline constexpr unsigned VL_DEFAULT_LIMIT_SIZE = 10; // MiB, given by finishing when a directory is set
inline constexpr size_t VL_UDP_HEADER_SIZE = 14;
inline constexpr uint16_t VL_UDP_SEQ_MAX = 59999;
inline constexpr size_t VL_ENV_VALUE_SIZE = 1024;
inline constexpr size_t VL_HOSTNAME_SIZE = 128;

// ---- locks (vklog_lock) ---------------------------------------------------
// Process-wide: claims of a rotation, and directory scans of backup files.
extern vklog_lock_t g_file_backup_lock;
extern vklog_lock_t g_dir_lock;

// (Re)initialises a lock nobody holds. 0, or -1 for a null lock.
int vl_lock_init(vklog_lock_t *lock);

// ---- manager (vklog) ------------------------------------------------------
// The process-wide category table. Slots [0, count) are in use; a slot is filled under the
// apply lock before `count` is raised (release), so readers that load `count` (acquire)
// only ever see complete categories. Categories are never removed while the library runs.
struct vklog_manager_t {
    char config_filepath[8192];
    timespec config_file_last_modify_time;
    char reload_use_flag;
    std::atomic<unsigned int> count;
    vklog_t log[VL_MAX_CATEGORY];
    int debug;
};
extern vklog_manager_t g_vklog_manager;

// The category whose configuration has this name, or null.
vklog_t *vl_find_category(std::string_view name);

// ---- header and file output (vklog) ---------------------------------------
// Writes the line header for `level` with the items of `opt` into `header` (at most `size`
// bytes, terminated). Returns its length, or -1 when the space is too small.
[[nodiscard]] int vl_set_header(int level, unsigned int opt, char opt_us_to_time, const char *file,
                                size_t file_len, const char *func, size_t func_len, long line, char *header,
                                size_t size);
// The header followed by `format` copied as text. Its length; -1 header too long; -14 when
// the text does not fit.
[[nodiscard]] int vl_set_header_with_format(int level, unsigned int opt, char opt_us_to_time,
                                            const char *format, size_t len_format, const char *file,
                                            size_t file_len, const char *func, size_t func_len, long line,
                                            char *header, size_t size);
// Appends one line to the configuration's file and rotates when it has reached its limit.
// The file is opened without following a symbolic link and without blocking, and written
// only when it is a regular file. 0; -1 the log directory could not be made; -2 the backup
// directory could not be made; -3 the rotation failed (its code in *err_no). After any
// failure (these, and a file that cannot be opened or written, which return 0) the output
// pauses: lines are dropped for a second, then the next line tries again (a full file is
// rotated first). The first failure of a run is said once on standard error.
[[nodiscard]] int vl_va_log_file_writer(const vklog_config_t *config, vklog_output_file_t *output_file,
                                        int *err_no, const char *buffer, size_t length);
// 1 when `path` exists (a link at it counts by its own size) and its size in MiB (size >> 20)
// is at least `limit_size`, else 0.
int vl_is_limit_size(const char *path, unsigned int limit_size);
// Rotates the current file into the backup ring. 0; -1 removing the file (no backups kept)
// failed; -2 removing the backup to be replaced failed; -3 the rename failed.
[[nodiscard]] int vl_file_backup(const vklog_config_t *config, vklog_output_file_t *output_file);
// The number of the newest backup of `backup_path` (latest modification, then highest
// number; 0 when there is none) into *last_index. 0; -1 bad path; -6 directory not opened.
[[nodiscard]] int vl_get_last_backup_index(const char *backup_path, int *last_index);
// Removes every backup of `backup_path` numbered above `max_count`. 0; -1 bad path;
// -6 directory not opened. Files that cannot be removed are left in place.
int vl_cleanup_backup_file(const char *backup_path, unsigned int max_count);
// Removes a file. 0, or -1 (errno set).
int vl_file_remove_vklog(const char *path);
// Writes one piece of a hex dump through the category's outputs. 0, or the writer's code.
int vl_hex_buffer_writer(const vklog_config_t *config, vklog_output_file_t *output_file, int *err_no,
                         const char *buffer);

// ---- configuration (vklog_config) -----------------------------------------
// Loads a configuration file into a list (linked by `next`, in file order), each finished.
// The file is opened without following a symbolic link and without blocking; a link, a
// FIFO or anything else but a regular file is reported at ERROR and counts as missing.
// On failure returns null with *rc -11 (open failed, errno in *err), -12 bracket without
// closing bracket, -13 value too long, -14 invalid level; nothing read is kept. On success
// *rc is 0 (and null is returned for a file without sections).
[[nodiscard]] vklog_config_t *vl_load_config_from_conf_file(const char *path, int *rc, int *err);
// Finishes a configuration (paths, default limit and port, no execute bits). 0; -1 null.
int vl_load_config_finish(vklog_config_t *config);
// Frees a list of configurations linked by `next`.
void vl_config_list_free(vklog_config_t *head);
// True when two configurations describe the same output (every field but the reference
// count and the list link).
[[nodiscard]] bool vl_config_equal(const vklog_config_t *a, const vklog_config_t *b);
// Parses "[<=>]name" into *level. 0, or -1 for no or an unknown name ("none" included).
[[nodiscard]] int vl_parse_level(std::string_view text, vklog_level_t *level);
// The configuration name of a level value ("none" for 0 and out of range).
const char *vl_level_name(int value);

// ---- utilities (vklog_utils) ----------------------------------------------
// Copies the value of environment variable `name` into `buffer` (terminated). Its length;
// -1 unset or null arguments; -2 it does not fit.
int getenv_vklog(const char *name, char *buffer, size_t size);
// True when OLV_DAEMON_VKLOG_DEACTIVATE is exactly "true".
[[nodiscard]] bool vl_deactivated_by_environment();
// Expands every ${NAME} in `source` into `dest` (terminated). 0; -1 null arguments; -2 a
// "${" without "}"; -3 a variable unset, empty or too long; -4 the result does not fit.
// `dest` is left empty on failure.
[[nodiscard]] int vklog_convert_string_Environment(std::string_view source, char *dest, size_t size);
// Blanks, tabs, CR and LF removed at both ends.
std::string_view vl_trim(std::string_view text);
// Leading decimal (or octal) digits as an unsigned value, saturating; `*whole` tells whether
// the text was digits only and not empty.
unsigned long vl_parse_unsigned(std::string_view text, int base, bool *whole);
// Copies `text` into `dest` of `size` bytes, cut and terminated. The copied length.
size_t vl_copy(char *dest, size_t size, std::string_view text);
// Creates the directory one level (mode 0750). 0 when it exists or was made, else -1.
int vl_make_directory(const char *directory);
// The process id, asked of the kernel once per process (a fork's child asks again).
int vl_process_id();

// ---- UDP packet (vklog_packet, vklog_crc32) -------------------------------
extern const std::array<uint32_t, 256> crc32_tab;
// CRC-32 (IEEE 802.3, reflected, initial 0xFFFFFFFF, final complement) of `length` bytes.
uint32_t vk_udp_get_crc(const unsigned char *header, size_t length);
// 0 when the CRC-32 of `length` bytes equals `value`, else -1.
int vk_udp_check_crc(uint32_t value, const unsigned char *header, size_t length);
// 0 for a valid magic; -1 bad fourth byte, -2 bad third, -3 bad second, -4 bad first, -5 null.
int vk_udp_check_magic(const unsigned char *magic);
// Writes the 14-byte header (magic, CRC, sequence, body length, format) for a body of
// `length` bytes already in place after it. 14; 0 for a null buffer.
int vk_udp_set_header(unsigned char *buffer, size_t length);
// Takes the next sequence number (0..59999, shared by every category).
uint16_t vl_udp_next_seq();
// Writes the body fields up to the process id and reserves the text length. Returns the
// offset at which the line text starts.
size_t vl_vklogger_set_packet_from_config(const vklog_config_t *config, unsigned char *buffer);
// Stores the text length and writes the header. Returns the datagram length.
size_t vl_vklogger_set_packet_finish_from_config(const vklog_config_t *config, unsigned char *buffer,
                                                 size_t text_length, size_t start);

// ---- UDP socket (vklog_comm) ----------------------------------------------
// Sends one datagram. 0 (also when send fails: counted as an error); -2 no socket;
// -3 not connected.
[[nodiscard]] int vl_va_log_send_to_vklogger(vklog_output_vklogger_t *output, const unsigned char *buffer,
                                             size_t length);
// Caller holds output->lock for the three below.
// Opens the socket. 0; -1 one is already open; -2 socket() failed (is_connect 0).
int vl_vklogger_socket_open(vklog_output_vklogger_t *output);
// Closes the socket. 0; -1 there was none.
int vl_vklogger_socket_close(vklog_output_vklogger_t *output);
// Connects to a dotted IPv4 address. 0 (also for an empty address); -3 not an address;
// -4 parse error; -5 connect failed.
int vl_vklogger_connect(vklog_output_vklogger_t *output, const char *ip, uint16_t port);
// Sets up a new category's UDP output. 0; -1 socket not opened; -3 connect failed.
int vl_output_vklogger_init_from_config(vklog_output_vklogger_t *output, const vklog_config_t *config);
// Adapts the UDP output from configuration `old` to `config`: opens or closes the socket by
// the new output flags, reconnects when the address or port changed. 0; -1 close failed;
// -2 open failed; -3 connect failed.
int vl_apply_config_to_vklogger(vklog_output_vklogger_t *output, const vklog_config_t *old,
                                const vklog_config_t *config);
