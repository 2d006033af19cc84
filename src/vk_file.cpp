// vk_file: atomic replacement and fresh creation of the agent's files.
#include "vk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int vk_write_file_atomic(const char *path, const void *data, size_t size, mode_t mode)
{
    if (path == nullptr || (data == nullptr && size > 0))
        return -1;
    char tmp[4096];
    if (snprintf(tmp, sizeof(tmp), "%s.tmp", path) >= static_cast<int>(sizeof(tmp)))
        return -1;
    int fd = vk_create_file_fresh(tmp, mode);
    if (fd < 0)
        return -2;
    const char *p = static_cast<const char *>(data);
    size_t done = 0;
    bool ok = true;
    while (ok && done < size) {
        ssize_t n = write(fd, p + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n > 0;
        if (ok)
            done += static_cast<size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok) {
        unlink(tmp);
        return -3;
    }
    if (rename(tmp, path) != 0) {
        unlink(tmp);
        return -4;
    }
    return 0;
}

int vk_create_file_fresh(const char *path, mode_t mode)
{
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (unlink(path) != 0 && errno != ENOENT)
        return -1;
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    if (fchmod(fd, mode) != 0) {
        int err = errno;
        close(fd);
        unlink(path);
        errno = err;
        return -1;
    }
    return fd;
}
