// vk_file: safe creation of the files the agent writes under the manager home. Files that
// others read are replaced through "<path>.tmp" and a rename, so a reader never sees half a
// file; files that are run or read by scripts are created afresh, never through a link
// planted in their place, and never writable by others for a moment, whatever the umask.
// Safe from any thread.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Writes size bytes of data to "<path>.tmp" (created with `mode`, not following a link),
// flushes it to disk and renames it over path. Returns 0; -1 null argument or a path too
// long; -2 the temporary file cannot be created; -3 writing or flushing failed; -4 the rename
// failed. On failure path is untouched and the temporary file removed.
[[nodiscard]] int vk_write_file_atomic(const char *path, const void *data, size_t size, mode_t mode);

// Creates path afresh for writing: whatever was there (a file, a planted symbolic link) is
// unlinked first, then the file is created exclusively without following links, with no
// permission for anyone but the owner, and only then given `mode`. Returns the descriptor
// (close-on-exec), or -1 with errno (nothing created).
[[nodiscard]] int vk_create_file_fresh(const char *path, mode_t mode);
