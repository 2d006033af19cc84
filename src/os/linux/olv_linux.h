// olv_linux: the Linux side of start-up. Reads the environment (installation home, DG
// address, umask rules), prints or logs the OS identity, and reads a process's command line
// from /proc for the single-instance guard. Called by main and check_double_execution.
// Thread safety: the /proc readers and check_os_info are safe from any thread; the
// environment readers run on the main thread during start-up.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Copies the environment variable `name` into `dest` (size bytes). Returns its length (0
// when unset or for a null name; dest is then empty), -1 for a null dest or size 0 (nothing
// written), -3 when the value is `size` characters or longer (dest left empty).
[[nodiscard]] int getenv_vk(char *dest, size_t size, const char *name);

// Reads MGR_QUIL_HOME into home_buf (home_size bytes, 256 at start-up) and hands
// MGR_RECEIVER_ADDR to the properties preset table. Returns 0; -1 when the home is unset,
// empty or too long (the error line is printed on standard error, home_buf empty).
[[nodiscard]] int init_environment(char *home_buf, size_t home_size);

// Copies the environment variable env_name (at most 255 characters, surrounding double
// quotes trimmed) into the properties preset table under preset_key when non-empty and
// key_len > 0. Returns 1; 0 when the variable is too long (error printed on standard error)
// or the table refuses the entry.
int set_config_by_env(const char *env_name, const char *preset_key, int key_len);

// Builds the umask from REMOVE_PERM_GROUP / REMOVE_PERM_OTHER ("read", "write" lists) or,
// when neither is present, PERM_FILE_OTHER_WR ("true" 0, "false" 02), all looked up in the
// properties preset table, and applies it with at least 022 (group and others never write
// the agent's files, whatever the rules say). Returns 0; -1 for a PERM_FILE_OTHER_WR value other
// than "true"/"false" (error printed on standard error, umask unchanged).
[[nodiscard]] int set_umask_from_env();

// Prints (to_log 0) or logs at INFO (to_log 1) the five uname lines. Returns 0; -1 when
// uname fails (the error line is printed or logged at ERROR instead).
int check_os_info(int to_log);
// check_os_info(1): the OS identity in the start-up log.
int init_os();

// Reads /proc/<pid>/cmdline in one read of at most `size` bytes and turns the NULs between
// the arguments into blanks (the first and the last byte are left alone). Returns the bytes
// read; -2 when the entry does not exist; -1 when it cannot be opened or read or buffer is
// null.
[[nodiscard]] int _get_proc_cmdline(pid_t pid, char *buffer, size_t size);

// The command line of `pid` as one trimmed text (at most out_size - 1 characters, always
// terminated). Returns 0; -1 when nothing could be read (or out is null / out_size 0);
// -2 when the command line is 4095 bytes or longer (refused). out is untouched on failure.
[[nodiscard]] int get_process_cmd_by_pid(pid_t pid, char *out, size_t out_size);

// 1 when pid is non-zero, name non-empty and the command line of pid contains name;
// otherwise 0.
[[nodiscard]] int process_check(pid_t pid, const char *name);
