// vk_file: atomic replacement and fresh creation of the agent's files, and the one way the
// agent opens a file under its home for reading (no link, no FIFO, no loose file for root).
#include "vk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "vklog.h"

void vk_report_error(const char *format, ...)
{
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    vklog_t *log = g_vklog.load();
    if (log != nullptr)
        VKLOG_ERROR(log, "%s", line);
    else
        fputs(line, stderr);
}

namespace
{

// Creates path exclusively, never through a link. Reports a link found in its place, then
// removes whatever is there.
int create_exclusive(const char *path, mode_t mode)
{
    struct stat st {
    };
    if (lstat(path, &st) == 0 && S_ISLNK(st.st_mode))
        vk_report_error("[vk_create_file_fresh] file(%s) is a symbolic link: removed, not followed.\n", path);
    if (unlink(path) != 0 && errno != ENOENT)
        return -1;
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

const char *file_type_name(mode_t mode)
{
    if (S_ISDIR(mode))
        return "directory";
    if (S_ISFIFO(mode))
        return "fifo";
    if (S_ISSOCK(mode))
        return "socket";
    return S_ISLNK(mode) ? "symbolic link" : "device";
}

// Closes fd, keeps errno at err and returns -1.
int refuse(int fd, int err)
{
    close(fd);
    errno = err;
    return -1;
}

} // namespace

int vk_write_file_atomic(const char *path, const void *data, size_t size, mode_t mode, bool sync)
{
    if (path == nullptr || (data == nullptr && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    char tmp[4096];
    if (snprintf(tmp, sizeof(tmp), "%s.tmp", path) >= static_cast<int>(sizeof(tmp))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = create_exclusive(tmp, mode);
    if (fd < 0)
        return -2;
    const char *p = static_cast<const char *>(data);
    size_t done = 0;
    int err = 0;
    while (err == 0 && done < size) {
        ssize_t n = write(fd, p + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            err = n < 0 ? errno : ENOSPC;
        else
            done += static_cast<size_t>(n);
    }
    if (err == 0 && sync && fsync(fd) != 0)
        err = errno;
    if (close(fd) != 0 && err == 0)
        err = errno;
    int ret = err != 0 ? -3 : 0;
    if (ret == 0 && rename(tmp, path) != 0) {
        err = errno;
        ret = -4;
    }
    if (ret != 0) {
        unlink(tmp);
        errno = err;
    }
    return ret;
}

int vk_create_file_fresh(const char *path, mode_t mode)
{
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int fd = create_exclusive(path, 0600);
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

int vk_open_read(const char *path, unsigned rules, const char *who)
{
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const int nofollow = (rules & VK_OPEN_NOFOLLOW) != 0 ? O_NOFOLLOW : 0;
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | nofollow);
    struct stat st {
    };
    if (fd < 0) {
        int err = errno;
        if (err == ELOOP && nofollow != 0 && lstat(path, &st) == 0 && S_ISLNK(st.st_mode))
            vk_report_error("[%s] file(%s) is a symbolic link: not followed, taken as missing.\n", who, path);
        errno = err;
        return -1;
    }
    if (fstat(fd, &st) != 0)
        return refuse(fd, errno);
    if (!S_ISREG(st.st_mode)) {
        vk_report_error("[%s] file(%s) is a %s, not a regular file: not read, taken as missing.\n", who, path,
                        file_type_name(st.st_mode));
        return refuse(fd, EINVAL);
    }
    if ((rules & VK_OPEN_ROOT_OWNED) != 0 && geteuid() == 0 && (st.st_uid != 0 || (st.st_mode & 022) != 0)) {
        vk_report_error(
            "[%s] file(%s) refused: owner uid %u, mode %04o. An agent running as root reads it only "
            "when root owns it and group and others cannot write it.\n",
            who, path, static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_mode & 07777));
        return refuse(fd, EPERM);
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

FILE *vk_fopen_read(const char *path, unsigned rules, const char *who)
{
    int fd = vk_open_read(path, rules, who);
    if (fd < 0)
        return nullptr;
    FILE *file = fdopen(fd, "r");
    if (file == nullptr)
        refuse(fd, ENOMEM);
    return file;
}
