// configure: the manager option table. A fixed set of named string options created from a
// compiled-in preset table, overlaid from the KEY=VALUE file data/config, read by index or
// name from any thread, updated at run time and written back through "<path>.tmp".
// Used through g_conf_handle (pub_conf) by the main loop, the logging set-up, the command
// thread (reloads) and the garbage collector.
// Thread safety: readers and updaters may run on any thread (reader-writer lock);
// create/set/destroy and load_config_file run before the worker threads exist.
// Interface only, kept for the unit's completeness (nothing in the agent calls them):
// get_config_count, get_conf_value_string_for_key, get_conf_value_int_for_key,
// update_conf_value_for_idx, get_conf_serialization.
#pragma once

#include <cstdint>
#include <shared_mutex>

#include "hash2.h"

inline constexpr int CONF_NAME_SIZE = 64;          // option names keep at most 63 characters
inline constexpr int CONF_PRESET_VALUE_SIZE = 128; // default values in a preset record
inline constexpr int CONF_SERIAL_OVERHEAD = 80;    // per-option overhead counted in serial_size
inline constexpr int CONF_INDEX_BUCKETS = 128;
// Integer read of a missing option (bit pattern FDE6E42B).
inline constexpr int CONF_INT_ERROR = -35199957;
// Type of an option the update operations may change.
inline constexpr int CONF_TYPE_UPDATABLE = 1;

// One compiled-in preset record; a preset table is a plain array passed as a byte block
// whose size is a multiple of 196.
struct conf_preset_t {
    int32_t type;
    char name[CONF_NAME_SIZE];
    char value[CONF_PRESET_VALUE_SIZE];
};
static_assert(sizeof(conf_preset_t) == 196, "preset records are 196 bytes");

// One live option. `value` is an owned heap string of at least value_len + 1 bytes.
struct conf_option_t {
    char name[CONF_NAME_SIZE];
    int32_t value_len;
    char *value;
    int32_t type;
};

// The handle. The name index maps the 64-byte NUL-padded name to the option's position;
// its items are small records of its own (name key + position), owned and freed by the map.
struct configure_t {
    conf_option_t *options = nullptr;
    int32_t count = 0;
    int32_t serial_size = 0; // sum of value_len + 80 over all options
    map_t index{};
    int64_t last_write_time = 0; // whole-second mtime of the file at the last (re)load
    std::shared_mutex lock;      // guards the values for readers and updaters
};

// New handle filled from `preset_bytes` (size / 196 records). Null on allocation failure or
// when set_configure fails (nothing is left allocated).
[[nodiscard]] configure_t *create_configure(const void *preset_bytes, int size);
// Fills a fresh handle from the preset table. Returns 0; -1 null handle or table, or a
// handle that already holds options (left as it is); -2 the
// option array or the index cannot be allocated (handle left empty). A value that cannot be
// allocated leaves that option with length 0 and out of the index.
[[nodiscard]] int set_configure(configure_t *handle, const void *preset_bytes, int size);
// Frees the index, the values, the array and the handle (which must come from
// create_configure). A null handle does nothing.
void destroy_configure(configure_t *handle);

// Overlays the file on the option values (every known name, whatever its type) and stores
// the file's mtime. Returns 0; -1 null argument; -2 the file cannot be opened (logged):
// missing, a symbolic link, not a regular file, or, for an agent running as root, owned by
// another user or writable by group or others (vk_open_read; the values stay as they were).
int load_config_file(configure_t *handle, const char *path);
// When the file's mtime differs from the stored one: stores it and applies every line
// through update_conf_value_for_key. Returns 0; -1 null argument; -2 file unchanged (not
// read); -3 the file cannot be opened or is refused as by load_config_file (logged; the new
// mtime stays stored, the values stay as they were).
int reload_config_file(configure_t *handle, const char *path);
// Writes "NAME=VALUE\n" lines in index order to "<path>.tmp" (created afresh with mode 0666
// less the umask: a link there is removed, not followed), flushes it and renames it over path
// (a failing rename is not reported). Returns 0; -1 null argument; -2 the text or the temporary
// file cannot be created or written (it is removed; path untouched).
int save_config_file(configure_t *handle, const char *path);

// Number of options, or -1 for a null handle.
[[nodiscard]] int get_config_count(configure_t *handle);
// Copies option idx's value into dest (at most size - 1 characters, always terminated).
// Returns 0; -1 null handle (or null dest / size 0); -2 no options; -3 idx out of range.
int get_conf_value_string_for_idx(configure_t *handle, int idx, char *dest, int size);
// atoi of option idx's value; CONF_INT_ERROR for a null handle, no options or idx out of
// range.
[[nodiscard]] int get_conf_value_int_for_idx(configure_t *handle, int idx);
// Copies the value of the option called name (matched on its first 63 characters) as above.
// Returns the option's index; -1 null handle (or null dest / size 0); -2 no options; -3 null
// name; -4 unknown name.
int get_conf_value_string_for_key(configure_t *handle, const char *name, char *dest, int size);
// atoi of the named option's value; CONF_INT_ERROR for a null handle, no options, a null or
// unknown name.
[[nodiscard]] int get_conf_value_int_for_key(configure_t *handle, const char *name);
// Sets the named option to the first len characters of value (stopping at a NUL), logging
// the change. Returns 0, also when the name is unknown or null, the value null, or the option
// read-only (nothing changes then); -1 null handle; -2 no options. On allocation failure the
// old value stays.
int update_conf_value_for_key(configure_t *handle, const char *name, const char *value, int len);
// The same by index. Returns 0; -1 null handle or value; -2 no options; -3 idx out of
// range; -4 the option is read-only.
int update_conf_value_for_idx(configure_t *handle, int idx, const char *value, int len);
// Allocates (zeroed, serial_size + 2 bytes) and returns through out_buffer the serialised
// options: u16 count, then per option 64-byte name, u32 length, value bytes (big-endian).
// Returns serial_size, which counts 80 bytes per option while a record uses 68, so the tail
// is zeroes. -1 null handle or out_buffer; -2 no options or serial_size below 1; -3 the
// buffer cannot be allocated. The caller frees the buffer with free().
[[nodiscard]] int get_conf_serialization(configure_t *handle, char **out_buffer);
// Logs every option that has a value at INFO. Cannot fail.
void print_configure(configure_t *handle);
