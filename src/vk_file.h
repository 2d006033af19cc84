// vk_file: safe opening of the files the agent reads and writes under the manager home.
// Files that others read are replaced through "<path>.tmp" and a rename, so a reader never
// sees half a file; files that are run or read by scripts are created afresh, never through
// a link planted in their place, and never writable by others for a moment, whatever the
// umask. Files are read only when they are regular files, so a FIFO cannot hang a thread.
// Safe from any thread.
#pragma once

#include <cstddef>
#include <cstdio>
#include <sys/types.h>

// Writes size bytes of data to "<path>.tmp" (created afresh as vk_create_file_fresh does, but
// with `mode` less the umask), flushes it to disk (unless `sync` is false: files rewritten
// often, whose loss in a power cut costs little, skip the flush; the rename still keeps a
// reader or a crash of the process from ever seeing half a file) and renames it over path. Returns 0; -1
// null argument or a path too long; -2 the temporary file cannot be created; -3 writing or
// flushing failed; -4 the rename failed. On failure path is untouched, the temporary file
// removed and errno says why.
[[nodiscard]] int vk_write_file_atomic(const char *path, const void *data, size_t size, mode_t mode,
                                       bool sync = true);

// Creates path afresh for writing: whatever was there (a file, a planted symbolic link, which
// is reported at ERROR) is unlinked first, then the file is created exclusively without
// following links, with no permission for anyone but the owner, and only then given `mode`.
// Returns the descriptor (close-on-exec), or -1 with errno (nothing created).
[[nodiscard]] int vk_create_file_fresh(const char *path, mode_t mode);

// Rules of vk_open_read, or-ed together.
enum : unsigned {
    // A file under the home: a symbolic link in the last component is not followed.
    VK_OPEN_NOFOLLOW = 1,
    // A file that steers the agent: an agent running as root refuses it when another user
    // owns it or group or others may write it.
    VK_OPEN_ROOT_OWNED = 2,
};

// Opens path for reading without blocking (a FIFO opens at once and is then refused) and
// without following a link when `rules` has VK_OPEN_NOFOLLOW. Only a regular file is
// accepted. Returns the descriptor (close-on-exec, blocking reads), or -1 with errno: the
// open's own error (ENOENT for a missing file, not logged); ELOOP a symbolic link; EINVAL not
// a regular file; EPERM refused by VK_OPEN_ROOT_OWNED. The last three are logged at ERROR
// with `who` (the caller's function name) and the path, on standard error while logging is
// not set up yet.
[[nodiscard]] int vk_open_read(const char *path, unsigned rules, const char *who);
// vk_open_read as a stream for reading. Returns null with errno as vk_open_read (ENOMEM when
// the stream cannot be allocated).
[[nodiscard]] FILE *vk_fopen_read(const char *path, unsigned rules, const char *who);

// Logs an ERROR line (printf format, ending in "\n") through the agent's log, or prints it on
// standard error while logging is not set up yet. Cannot fail.
void vk_report_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
