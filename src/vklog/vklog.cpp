// vklog: the categories and the line writer of the logging library: the category table,
// applying (swapping) configurations, the line header, the file writer with its size
// rotation into numbered backups, the hex dump, and the library's set-up and reload.
// Called by every program unit through the VKLOG_* macros of vklog.h; any thread may log.
#include "vklog_internal.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

std::atomic<vklog_t *> g_vklog{nullptr};
std::atomic<vklog_t *> g_vklog_console_debug{nullptr};
const char *const g_vklog_level_str[8] = {"NONE", "FATA", "ERRO", "WARN", "NOTI", "INFO", "DBUG", "TRAC"};
vklog_manager_t g_vklog_manager;

namespace
{

constexpr mode_t s_out_dir_mode = 0750;
constexpr size_t s_backup_suffix_room = 12; // "." + a decimal int + terminator
// After a failure to write the file, lines are dropped for this long before the next one
// tries again: a file that cannot be written costs one attempt a second, not one a line.
constexpr int64_t s_retry_pause_ms = 1000;

// Serialises applying configurations (the creation of categories above all) and the
// library's set-up and end; s_reload_lock guards the manager's reload fields.
vklog_lock_t s_apply_lock;
vklog_lock_t s_reload_lock;
// Per slot: a rotation and a clean-up of the same backup ring never run at once. The last
// one serves the built-in standard-output category.
vklog_lock_t s_fd_locks[VL_MAX_CATEGORY + 1];

// Closes a descriptor on every path.
struct vl_fd_t {
    int fd;
    explicit vl_fd_t(int f) : fd(f) {}
    vl_fd_t(const vl_fd_t &) = delete;
    vl_fd_t &operator=(const vl_fd_t &) = delete;
    ~vl_fd_t()
    {
        if (fd >= 0)
            close(fd);
    }
};

// The lock of a file output; outputs set up outside the table share a fallback one.
vklog_lock_t &vl_fd_lock(vklog_output_file_t *output)
{
    static vklog_lock_t fallback;
    return output->fd_lock != nullptr ? *output->fd_lock : fallback;
}

struct vl_dir_closer_t {
    void operator()(DIR *d) const { closedir(d); }
};

// The number of bytes written (short of `length` when a write fails). With `append_only`
// the descriptor is the log file, open with O_APPEND: pwrite on it appends on Linux wherever
// the offset points, and fails with ESPIPE on a FIFO, a socket or a terminal, so a log path
// that became something other than a regular file between two of the fstat checks below is
// never written to either. Standard output takes plain writes.
size_t vl_write_all(int fd, const char *data, size_t length, bool append_only = false)
{
    size_t done = 0;
    while (done < length) {
        ssize_t n = append_only ? pwrite(fd, data + done, length - done, 0) : write(fd, data + done, length - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    return done;
}

// ---- configuration references -----------------------------------------------
// A logging call holds a reference on the configuration it uses; a swap frees the old one
// only when no call holds it, otherwise the last call to release it does.
bool vl_config_acquire(vklog_t *cat, vklog_config_t **config, uint8_t *output)
{
    std::lock_guard<vklog_lock_t> hold(cat->config_lock);
    if (cat->config == nullptr)
        return false;
    cat->config->count_in_use++;
    *config = cat->config;
    *output = cat->config->output;
    return true;
}

void vl_config_release(vklog_t *cat, vklog_config_t *config)
{
    bool free_it = false;
    {
        std::lock_guard<vklog_lock_t> hold(cat->config_lock);
        free_it = --config->count_in_use == 0 && cat->config != config;
    }
    if (free_it)
        vklog_config_free(config);
}

// Forwarding stays off for this configuration until another one is applied.
void vl_config_clear_vklogger(vklog_t *cat, vklog_config_t *config)
{
    std::lock_guard<vklog_lock_t> hold(cat->config_lock);
    config->output = static_cast<uint8_t>(config->output & ~VKLOG_OUTPUT_VKLOGGER);
}

void vl_activate(vklog_t *cat)
{
    cat->activate.store(vl_deactivated_by_environment() ? 0 : 1, std::memory_order_relaxed);
}

// ---- header -------------------------------------------------------------------
// The header items are written by hand: snprintf's format parsing would cost more than the
// few digits it writes, on every line.
char *vl_put_2digits(char *p, int v)
{
    p[0] = static_cast<char>('0' + v / 10 % 10);
    p[1] = static_cast<char>('0' + v % 10);
    return p + 2;
}

// `v` in `base` (10 or 16, lower-case digits), as %lu and %lx write it.
char *vl_put_number(char *p, unsigned long v, unsigned base)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[v % base];
        v /= base;
    } while (v != 0);
    while (n > 0)
        *p++ = digits[--n];
    return p;
}

// Copies the `len` bytes of an item to `out` when they fit with the terminator. The item's
// length either way: the caller refuses an item that did not fit.
int vl_put_item(char *out, size_t size, const char *item, size_t len)
{
    if (len < size) {
        memcpy(out, item, len);
        out[len] = '\0';
    }
    return static_cast<int>(len);
}

// The local time of the current second, kept per thread with its "[dd hh:mm:ss" text:
// localtime_r and the formatting once a second only.
constexpr size_t s_time_text_len = 12;
struct vl_time_cache_t {
    time_t sec = -1;
    char text[s_time_text_len];
};
thread_local vl_time_cache_t t_time_cache;

int vl_put_time(char *out, size_t size, char with_us)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != t_time_cache.sec) {
        struct tm tm {
        };
        localtime_r(&now.tv_sec, &tm);
        char *p = t_time_cache.text;
        *p++ = '[';
        p = vl_put_2digits(p, tm.tm_mday);
        *p++ = ' ';
        p = vl_put_2digits(p, tm.tm_hour);
        *p++ = ':';
        p = vl_put_2digits(p, tm.tm_min);
        *p++ = ':';
        vl_put_2digits(p, tm.tm_sec);
        t_time_cache.sec = now.tv_sec;
    }
    char item[32];
    memcpy(item, t_time_cache.text, s_time_text_len);
    char *p = item + s_time_text_len;
    if (with_us != 0) {
        long us = now.tv_nsec <= 1000 ? 0 : now.tv_nsec > 1000000000L ? 999999 : now.tv_nsec / 1000;
        *p++ = '.';
        for (int i = 5; i >= 0; i--, us /= 10)
            p[i] = static_cast<char>('0' + us % 10);
        p += 6;
    }
    *p++ = ']';
    return vl_put_item(out, size, item, static_cast<size_t>(p - item));
}

// "[pid:thread]", "[pid]" or "[thread]" (thread id in hexadecimal).
int vl_put_process(char *out, size_t size, unsigned int opt)
{
    char item[48];
    char *p = item;
    *p++ = '[';
    if ((opt & VKLOG_HEADER_PID) != 0)
        p = vl_put_number(p, static_cast<unsigned long>(vl_process_id()), 10);
    if ((opt & (VKLOG_HEADER_PID | VKLOG_HEADER_THREAD_ID)) == (VKLOG_HEADER_PID | VKLOG_HEADER_THREAD_ID))
        *p++ = ':';
    if ((opt & VKLOG_HEADER_THREAD_ID) != 0)
        p = vl_put_number(p, static_cast<unsigned long>(pthread_self()), 16);
    *p++ = ']';
    return vl_put_item(out, size, item, static_cast<size_t>(p - item));
}

int vl_put_level(char *out, size_t size, int level)
{
    const char *label = level >= 0 && level < 8 ? g_vklog_level_str[level] : "null";
    char item[16];
    size_t len = strnlen(label, 8);
    item[0] = '[';
    memcpy(item + 1, label, len);
    item[len + 1] = ']';
    return vl_put_item(out, size, item, len + 2);
}

int vl_put_source(char *out, size_t size, unsigned int opt, const char *file, size_t file_len,
                  const char *func, size_t func_len, long line)
{
    bool f = (opt & VKLOG_HEADER_FILE) != 0;
    bool fn = (opt & VKLOG_HEADER_FUNCTION) != 0;
    bool l = (opt & VKLOG_HEADER_LINE) != 0;
    int fl = file != nullptr ? static_cast<int>(strnlen(file, file_len)) : 0;
    int fnl = func != nullptr ? static_cast<int>(strnlen(func, func_len)) : 0;
    file = file != nullptr ? file : "";
    func = func != nullptr ? func : "";
    if (f && fn)
        return l ? snprintf(out, size, "[%.*s:%.*s:%ld]", fl, file, fnl, func, line)
                 : snprintf(out, size, "[%.*s:%.*s]", fl, file, fnl, func);
    if (f)
        return l ? snprintf(out, size, "[%.*s:%ld]", fl, file, line)
                 : snprintf(out, size, "[%.*s]", fl, file);
    if (fn)
        return l ? snprintf(out, size, "[%.*s:%ld]", fnl, func, line)
                 : snprintf(out, size, "[%.*s]", fnl, func);
    return snprintf(out, size, "[%ld]", line);
}

} // namespace

int vl_set_header(int level, unsigned int opt, char opt_us_to_time, const char *file, size_t file_len,
                  const char *func, size_t func_len, long line, char *header, size_t size)
{
    if (header == nullptr || size == 0)
        return -1;
    header[0] = '\0';
    size_t off = 0;
    // Each item must fit whole (with the terminator); a cut header is refused.
    auto fits = [&](int n) {
        if (n < 0 || static_cast<size_t>(n) >= size - off)
            return false;
        off += static_cast<size_t>(n);
        return true;
    };
    if ((opt & VKLOG_HEADER_TIME) != 0 && !fits(vl_put_time(header + off, size - off, opt_us_to_time)))
        return -1;
    if ((opt & (VKLOG_HEADER_PID | VKLOG_HEADER_THREAD_ID)) != 0 &&
        !fits(vl_put_process(header + off, size - off, opt)))
        return -1;
    if ((opt & VKLOG_HEADER_LEVEL) != 0 && !fits(vl_put_level(header + off, size - off, level)))
        return -1;
    if ((opt & (VKLOG_HEADER_FILE | VKLOG_HEADER_FUNCTION | VKLOG_HEADER_LINE)) != 0 &&
        !fits(vl_put_source(header + off, size - off, opt, file, file_len, func, func_len, line)))
        return -1;
    header[off] = '\0';
    return static_cast<int>(off);
}

int vl_set_header_with_format(int level, unsigned int opt, char opt_us_to_time, const char *format,
                              size_t len_format, const char *file, size_t file_len, const char *func,
                              size_t func_len, long line, char *header, size_t size)
{
    int len = vl_set_header(level, opt, opt_us_to_time, file, file_len, func, func_len, line, header, size);
    if (len < 0)
        return -1;
    size_t text_len = format != nullptr ? strnlen(format, len_format) : 0;
    if (static_cast<size_t>(len) + text_len >= size)
        return -14;
    memcpy(header + len, format, text_len);
    header[len + text_len] = '\0';
    return len + static_cast<int>(text_len);
}

// ---- backups ------------------------------------------------------------------
namespace
{

// Splits a backup path into directory and base name. False when it has no '/' or leaves no
// room for a ".N" suffix.
bool vl_split_backup_path(const char *backup_path, char *dir, size_t dir_size, std::string_view *base)
{
    size_t len = strnlen(backup_path, 8192);
    const char *slash = static_cast<const char *>(memrchr(backup_path, '/', len));
    if (slash == nullptr || len + s_backup_suffix_room > 8192)
        return false;
    size_t dir_len = static_cast<size_t>(slash - backup_path);
    vl_copy(dir, dir_size, std::string_view(backup_path, dir_len == 0 ? 1 : dir_len)); // "/x" lives in "/"
    *base = std::string_view(slash + 1, len - dir_len - 1);
    return true;
}

// The backup number of entry `name` (base + "." + digits, no leading zero, fits an int), else 0.
int vl_backup_number(const char *name, std::string_view base)
{
    std::string_view entry(name);
    if (entry.size() <= base.size() + 1 || entry.substr(0, base.size()) != base || entry[base.size()] != '.')
        return 0;
    std::string_view digits = entry.substr(base.size() + 1);
    bool whole = false;
    unsigned long n = vl_parse_unsigned(digits, 10, &whole);
    if (!whole || digits[0] == '0' || n > 0x7FFFFFFFul)
        return 0;
    return static_cast<int>(n);
}

// Calls visit(full path, number) for every numbered backup of `backup_path`, under the
// directory lock. 0; -1 bad path; -6 directory not opened.
template <typename Visit> int vl_scan_backups(const char *backup_path, Visit visit)
{
    char dir[8192];
    std::string_view base;
    if (backup_path == nullptr || !vl_split_backup_path(backup_path, dir, sizeof(dir), &base))
        return -1;
    std::lock_guard<vklog_lock_t> hold(g_dir_lock);
    std::unique_ptr<DIR, vl_dir_closer_t> d(opendir(dir));
    if (d == nullptr)
        return -6;
    while (dirent *entry = readdir(d.get())) {
        int number = vl_backup_number(entry->d_name, base);
        if (number <= 0)
            continue;
        char path[8192 + 256];
        snprintf(path, sizeof(path), "%s/%s", dir, entry->d_name);
        visit(path, number);
    }
    return 0;
}

} // namespace

int vl_get_last_backup_index(const char *backup_path, int *last_index)
{
    int best = 0;
    timespec best_time{};
    int rc = vl_scan_backups(backup_path, [&](const char *path, int number) {
        struct stat st {
        };
        if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode))
            return; // a link or anything else planted under a backup's name does not steer the ring
        const timespec &t = st.st_mtim;
        bool newer =
            t.tv_sec > best_time.tv_sec || (t.tv_sec == best_time.tv_sec && t.tv_nsec > best_time.tv_nsec);
        bool same = t.tv_sec == best_time.tv_sec && t.tv_nsec == best_time.tv_nsec;
        if (best == 0 || newer || (same && number > best)) {
            best = number;
            best_time = t;
        }
    });
    if (last_index != nullptr)
        *last_index = rc == 0 ? best : 0;
    return rc;
}

int vl_cleanup_backup_file(const char *backup_path, unsigned int max_count)
{
    return vl_scan_backups(backup_path, [&](const char *path, int number) {
        if (static_cast<unsigned int>(number) > max_count)
            (void)vl_file_remove_vklog(path); // one that stays is tried again at the next clean-up
    });
}

int vl_file_remove_vklog(const char *path)
{
    return path != nullptr && unlink(path) == 0 ? 0 : -1;
}

int vl_is_limit_size(const char *path, unsigned int limit_size)
{
    struct stat st {
    };
    if (path == nullptr || lstat(path, &st) != 0)
        return 0;
    return (static_cast<unsigned long long>(st.st_size) >> 20) >= limit_size ? 1 : 0;
}

// Backup ring of agent.log with backup_count 3 (the number after the newest wraps to 1):
//
//   agent.log --rename--> agent.log.<idx+1>      idx: 1 -> 2 -> 3 -> 1 -> ...
//   (an existing agent.log.<idx+1> is removed first: it is the oldest one)
int vl_file_backup(const vklog_config_t *config, vklog_output_file_t *output_file)
{
    if (config->backup_count == 0)
        return vl_file_remove_vklog(config->out_path) == 0 ? 0 : -1;
    int idx = output_file->backup_idx.load(std::memory_order_relaxed);
    if (idx == 0)
        (void)vl_get_last_backup_index(config->backup_path, &idx); // none found: start at 1
    idx++;
    if (idx <= 0 || static_cast<unsigned int>(idx) > config->backup_count)
        idx = 1;
    char name[8192 + s_backup_suffix_room];
    snprintf(name, sizeof(name), "%s.%d", config->backup_path, idx);
    if (vl_file_remove_vklog(name) != 0 && errno != ENOENT)
        return -2; // the name itself is removed, never what a link there points to
    if (rename(config->out_path, name) != 0)
        return -3;
    output_file->backup_idx.store(idx, std::memory_order_relaxed); // a failed try uses up no number
    return 0;
}

// ---- file writer ------------------------------------------------------------------
namespace
{

// Milliseconds of the monotonic clock: the pause after a failure does not follow the wall
// clock when it is set.
int64_t vl_now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Whether this line may try the file. A healthy output always may; a failing one lets one
// line a second try (the one that moves the retry time on), and the others are dropped
// without touching the file. *retrying tells the winner that the last attempt failed.
bool vl_attempt_allowed(vklog_output_file_t *output, bool *retrying)
{
    *retrying = output->failing.load(std::memory_order_acquire) != 0;
    if (!*retrying)
        return true;
    int64_t now = vl_now_ms();
    int64_t at = output->retry_at_ms.load(std::memory_order_relaxed);
    return now >= at &&
           output->retry_at_ms.compare_exchange_strong(at, now + s_retry_pause_ms, std::memory_order_relaxed);
}

// The file cannot be written: lines are dropped until the pause is over. Logging is what
// failed, so the first failure of a run says so on standard error, once, with the reason;
// `detail_line` (the library's own message for this failure, or null) goes with it.
void vl_output_failed(const vklog_config_t *config, vklog_output_file_t *output, const char *why,
                      const char *detail_line)
{
    output->retry_at_ms.store(vl_now_ms() + s_retry_pause_ms, std::memory_order_relaxed);
    if (output->failing.exchange(1, std::memory_order_acq_rel) != 0)
        return;
    if (detail_line != nullptr)
        fputs(detail_line, stderr);
    fprintf(stderr,
            "[vklog] log file %s cannot be written: %s. Its lines are dropped; it is tried again every "
            "second.\n",
            config->out_path, why);
}

void vl_output_recovered(const vklog_config_t *config, vklog_output_file_t *output)
{
    if (output->failing.load(std::memory_order_relaxed) != 0 &&
        output->failing.exchange(0, std::memory_order_acq_rel) != 0)
        fprintf(stderr, "[vklog] log file %s is written again.\n", config->out_path);
}

// Not an errno value: the log path names something other than a regular file.
constexpr int s_not_regular = -1;

// Why an open of the log file failed, in words.
const char *vl_open_failure(int error)
{
    if (error == ELOOP)
        return "it is a symbolic link, which is never followed";
    if (error == s_not_regular || error == ENXIO || error == EOPNOTSUPP)
        return "it is not a regular file";
    return strerror(error);
}

// Opens the log file for appending: never through a symbolic link at its name and never
// blocking (a FIFO without a reader fails at once). Whether it is a regular file is seen by
// vl_size_after_line and, between its checks, by the write itself. Returns the descriptor,
// or -1 with *error set to errno.
int vl_open_log_file(const vklog_config_t *config, int *error)
{
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    int fd = open(config->out_path, flags, config->file_permission);
    if (fd < 0)
        *error = errno;
    return fd;
}

// Every this many lines the file's size is taken from the file itself rather than counted,
// so that appends by other writers of the same file (another process, another category)
// count towards the limit within that many lines.
constexpr uint32_t s_size_check_lines = 64;

// The file's size once this line's `written` bytes are in. Most lines add their bytes to
// the size counted so far; the file is asked (fstat) when the size is not known and every
// s_size_check_lines lines. A count that is too high (the file was renamed, removed or
// truncated by someone else) only makes the rotation look at the file again, which puts
// the right size back. -1 with *error set when fstat fails or the file is not a regular one.
int64_t vl_size_after_line(vklog_output_file_t *output, int fd, size_t written, int *error)
{
    uint32_t line = output->size_lines.fetch_add(1, std::memory_order_relaxed);
    if (line % s_size_check_lines != 0) {
        int64_t known = output->size.load(std::memory_order_relaxed);
        auto n = static_cast<int64_t>(written);
        while (known >= 0)
            if (output->size.compare_exchange_weak(known, known + n, std::memory_order_relaxed))
                return known + n;
    }
    struct stat st {
    };
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = S_ISREG(st.st_mode) ? errno : s_not_regular;
        output->size.store(-1, std::memory_order_relaxed);
        return -1;
    }
    output->size.store(st.st_size, std::memory_order_relaxed);
    return st.st_size;
}

// Only the thread that claims the rotation goes on; the others keep writing. A failure
// releases the claim: the output then pauses, and the first line after the pause tries
// the rotation again before it writes.
int vl_rotate_claimed(const vklog_config_t *config, vklog_output_file_t *output_file, int *err_no)
{
    {
        std::lock_guard<vklog_lock_t> hold(g_file_backup_lock);
        if (output_file->backup_work.load(std::memory_order_relaxed) != 0)
            return 0;
        output_file->backup_work.store(1, std::memory_order_relaxed);
    }
    // The size seen by the caller may be that of a file another thread has just rotated
    // away, or counted too high; look at the current file again so that one full file gives
    // one rotation.
    if (vl_is_limit_size(config->out_path, config->limit_size) == 0) {
        output_file->size.store(-1, std::memory_order_relaxed); // counted too high: ask the file
        output_file->backup_work.store(0, std::memory_order_release);
        return 0;
    }
    struct stat st {
    };
    if (config->backup_dir[0] != '\0' && stat(config->backup_dir, &st) != 0 && config->out_dir[0] != '\0' &&
        vl_make_directory(config->out_dir) != 0) {
        int e = errno;
        char line[4096 + 64];
        snprintf(line, sizeof(line), "backup dir[%s] is not make.[(%d)%s]\n", config->out_dir, e, strerror(e));
        output_file->backup_work.store(0, std::memory_order_release);
        vl_output_failed(config, output_file, "its backup directory cannot be made", line);
        return -2;
    }
    int rc = 0;
    {
        std::lock_guard<vklog_lock_t> hold(vl_fd_lock(output_file));
        rc = vl_file_backup(config, output_file);
    }
    output_file->size.store(-1, std::memory_order_relaxed); // a new file from the next line on
    output_file->backup_work.store(0, std::memory_order_release);
    if (rc != 0) {
        output_file->err_no.store(rc, std::memory_order_relaxed);
        if (err_no != nullptr)
            *err_no = rc;
        vl_output_failed(config, output_file, "it has reached its size limit and the rotation failed", nullptr);
        return -3;
    }
    return 0;
}

bool vl_is_full(const vklog_config_t *config, int64_t size)
{
    return (static_cast<unsigned long long>(size) >> 20) >= config->limit_size;
}

} // namespace

int vl_va_log_file_writer(const vklog_config_t *config, vklog_output_file_t *output_file, int *err_no,
                          const char *buffer, size_t length)
{
    bool retrying = false;
    if (!vl_attempt_allowed(output_file, &retrying))
        return 0; // paused after a failure: the line is dropped
    // The pause may follow a failed rotation: a full file is rotated before it grows on.
    if (retrying && vl_is_limit_size(config->out_path, config->limit_size) != 0) {
        int rc = vl_rotate_claimed(config, output_file, err_no);
        if (rc != 0)
            return rc;
    }
    // Opened per line so that an external rename or removal of the file takes effect at
    // the next line; O_APPEND keeps concurrent lines whole.
    int error = 0;
    vl_fd_t fd(vl_open_log_file(config, &error));
    if (fd.fd < 0 && error == ENOENT && config->out_dir[0] != '\0') {
        if (mkdir(config->out_dir, s_out_dir_mode) != 0 && errno != EEXIST) {
            int e = errno;
            char line[4096 + 64];
            snprintf(line, sizeof(line), "out dir[%s] is not make.[(%d)%s]\n", config->out_dir, e, strerror(e));
            vl_output_failed(config, output_file, "its directory cannot be made", line);
            return -1;
        }
        fd.fd = vl_open_log_file(config, &error);
    }
    if (fd.fd < 0) {
        vl_output_failed(config, output_file, vl_open_failure(error), nullptr);
        return 0;
    }
    size_t written = vl_write_all(fd.fd, buffer, length, true);
    if (written < length) {
        // A full disk or a size limit; ESPIPE: a FIFO or other non-file took the log's name.
        output_file->size.store(-1, std::memory_order_relaxed);
        vl_output_failed(config, output_file, errno == ESPIPE ? vl_open_failure(s_not_regular) : strerror(errno),
                         nullptr);
        return 0;
    }
    int64_t size = vl_size_after_line(output_file, fd.fd, written, &error);
    if (size < 0) {
        vl_output_failed(config, output_file, vl_open_failure(error), nullptr);
        return 0;
    }
    vl_output_recovered(config, output_file);
    // A line that brings the file to its limit rotates it at once.
    if (!vl_is_full(config, size) || output_file->backup_work.load(std::memory_order_acquire) != 0)
        return 0;
    return vl_rotate_claimed(config, output_file, err_no);
}

int vl_hex_buffer_writer(const vklog_config_t *config, vklog_output_file_t *output_file, int *err_no,
                         const char *buffer)
{
    return vl_va_log_file_writer(config, output_file, err_no, buffer, strlen(buffer));
}

// ---- category table ---------------------------------------------------------------
vklog_t *vl_find_category(std::string_view name)
{
    unsigned int n = g_vklog_manager.count.load(std::memory_order_acquire);
    for (unsigned int i = 0; i < n && i < VL_MAX_CATEGORY; i++) {
        vklog_t *cat = &g_vklog_manager.log[i];
        std::lock_guard<vklog_lock_t> hold(cat->config_lock);
        if (cat->config != nullptr &&
            name == std::string_view(cat->config->name, strnlen(cat->config->name, 128)))
            return cat;
    }
    return nullptr;
}

namespace
{

void vl_reset_output_file(vklog_output_file_t *output, vklog_lock_t *fd_lock)
{
    output->err_no.store(0);
    output->backup_idx.store(0);
    output->backup_work.store(0);
    output->failing.store(0);
    output->retry_at_ms.store(0);
    output->size.store(-1);
    output->size_lines.store(0);
    // A slot's lock never changes; a slot reused after vklog_fini keeps its pointer, so a
    // call still in flight on a stale handle never reads it while it is written.
    if (output->fd_lock != fd_lock)
        output->fd_lock = fd_lock;
}

// Fills the next free slot (caller holds s_apply_lock) and then publishes it. The slot's
// locks are static and never re-initialised, so a stale handle to a slot stays safe.
vklog_t *vl_create_category(vklog_config_t *config, int *err)
{
    unsigned int n = g_vklog_manager.count.load(std::memory_order_relaxed);
    if (n >= VL_MAX_CATEGORY) {
        *err = -2;
        return nullptr;
    }
    vklog_t *cat = &g_vklog_manager.log[n];
    {
        std::lock_guard<vklog_lock_t> hold(cat->config_lock);
        cat->config = config;
        cat->config_temp = nullptr;
    }
    cat->level.store(config->level, std::memory_order_relaxed);
    vl_reset_output_file(&cat->output_file, &s_fd_locks[n]);
    vl_reset_output_file(&cat->output_std, nullptr);
    {
        std::lock_guard<vklog_lock_t> hold(cat->output_vklogger.lock);
        cat->output_vklogger.sock = -1;
        cat->output_vklogger.err_no = 0;
        cat->output_vklogger.is_connect = 0;
        cat->output_vklogger.perf_data = {};
    }
    cat->last_error.store(0);
    cat->activate.store(0); // active once vklog_get_category or vklog_enable says so
    if (vl_output_vklogger_init_from_config(&cat->output_vklogger, config) != 0)
        *err = -4;
    g_vklog_manager.count.store(n + 1, std::memory_order_release);
    return cat;
}

// Installs `config` in an existing category; the caller holds s_apply_lock.
int vl_swap_config(vklog_t *cat, vklog_config_t *config, int *err)
{
    vklog_config_t *old = nullptr;
    {
        std::lock_guard<vklog_lock_t> hold(cat->config_lock);
        old = cat->config;
        if (old == config)
            return 0; // the configuration in force itself: nothing to install, nothing to free
        // Re-applying what is in force (every few seconds by a program's refresh) changes
        // nothing: no swap, no socket or backup work.
        if (old != nullptr && vl_config_equal(old, config)) {
            vklog_config_free(config);
            return 0;
        }
        if (old != nullptr)
            old->count_in_use++; // keeps its fields readable below
    }
    config->next = nullptr;
    config->count_in_use = 0;
    if (old != nullptr) {
        if (vl_apply_config_to_vklogger(&cat->output_vklogger, old, config) != 0)
            *err = -4;
        if (old->backup_count != config->backup_count) {
            std::lock_guard<vklog_lock_t> hold(vl_fd_lock(&cat->output_file));
            (void)vl_cleanup_backup_file(old->backup_path, config->backup_count);
        }
        if (strncmp(old->backup_path, config->backup_path, sizeof(config->backup_path)) != 0)
            cat->output_file.backup_idx.store(0, std::memory_order_relaxed); // a new ring: find its newest
    }
    // Compared while the reference taken above keeps `old` alive.
    bool other_file =
        old != nullptr && strncmp(old->out_path, config->out_path, sizeof(config->out_path)) != 0;
    bool free_old = false;
    {
        std::lock_guard<vklog_lock_t> hold(cat->config_lock);
        cat->config = config;
        free_old = old != nullptr && --old->count_in_use == 0;
    }
    cat->level.store(config->level, std::memory_order_relaxed);
    if (other_file) {
        // A new file is tried at its first line, and a failure of it is reported anew.
        cat->output_file.failing.store(0, std::memory_order_relaxed);
        cat->output_file.retry_at_ms.store(0, std::memory_order_relaxed);
        cat->output_file.size.store(-1, std::memory_order_relaxed); // ask the new file its size
    }
    if (free_old)
        vklog_config_free(old);
    return 0;
}

} // namespace

int vklog_apply_config(vklog_config_t *config, int *err)
{
    int err_local = 0;
    err = err != nullptr ? err : &err_local;
    *err = 0;
    if (config == nullptr) {
        *err = -1;
        return -1;
    }
    std::lock_guard<vklog_lock_t> hold(s_apply_lock);
    vklog_t *cat =
        vl_find_category(std::string_view(config->name, strnlen(config->name, sizeof(config->name))));
    if (cat != nullptr)
        return vl_swap_config(cat, config, err);
    config->next = nullptr;
    config->count_in_use = 0;
    if (vl_create_category(config, err) == nullptr) {
        vklog_config_free(config);
        return -2;
    }
    return 0;
}

// ---- writing ------------------------------------------------------------------------
namespace
{

void vl_file_output(vklog_t *cat, const vklog_config_t *config, const char *text, size_t length)
{
    int err_no = 0;
    int rc = vl_va_log_file_writer(config, &cat->output_file, &err_no, text, length);
    if (rc != 0)
        cat->last_error.store(rc, std::memory_order_relaxed);
}

int vl_write_line(vklog_t *cat, vklog_config_t *config, uint8_t output, const char *file, size_t file_len,
                  const char *func, size_t func_len, long line, int level, const char *format, va_list ap)
{
    unsigned char buffer[VL_LINE_BUFFER_SIZE];
    bool udp = (output & VKLOG_OUTPUT_VKLOGGER) != 0;
    size_t start = udp ? vl_vklogger_set_packet_from_config(config, buffer) : 0;
    char *text = reinterpret_cast<char *>(buffer + start);
    size_t space = sizeof(buffer) - start;
    int hlen = vl_set_header(level, config->header_flag, config->include_us_to_time, file, file_len, func,
                             func_len, line, text, space);
    if (hlen < 0)
        return -1;
    size_t room = space - static_cast<size_t>(hlen);
    int n = vsnprintf(text + hlen, room, format, ap);
    size_t length = static_cast<size_t>(hlen) + (n < 0 ? 0 : static_cast<size_t>(n) < room ? n : room - 1);
    if (n > 0 && static_cast<size_t>(n) >= room && length > static_cast<size_t>(hlen))
        text[length - 1] = '\n'; // a long message is cut, but still ends its line
    if (udp) {
        size_t total = vl_vklogger_set_packet_finish_from_config(config, buffer, length, start);
        if (vl_va_log_send_to_vklogger(&cat->output_vklogger, buffer, total) != 0)
            vl_config_clear_vklogger(cat, config);
    }
    if ((output & VKLOG_OUTPUT_FILE) != 0)
        vl_file_output(cat, config, text, length);
    if ((output & VKLOG_OUTPUT_STDOUT) != 0)
        vl_write_all(STDOUT_FILENO, text, length);
    // VKLOG_OUTPUT_STDERR is accepted by configurations but writes nothing.
    return 0;
}

} // namespace

int vklog(vklog_t *cat, const char *file, size_t file_len, const char *func, size_t func_len, long line,
          int level, const char *format, ...)
{
    if (cat == nullptr)
        return -1;
    if (cat->activate.load(std::memory_order_relaxed) == 0)
        return 0;
    vklog_config_t *config = nullptr;
    uint8_t output = 0;
    if (!vl_config_acquire(cat, &config, &output))
        return -2;
    va_list ap;
    va_start(ap, format);
    int rc = vl_write_line(cat, config, output, file, file_len, func, func_len, line, level,
                           format != nullptr ? format : "", ap);
    va_end(ap);
    vl_config_release(cat, config);
    return rc;
}

// ---- hex dump -----------------------------------------------------------------------
namespace
{

constexpr int s_hex_default_columns = 16;
constexpr int s_hex_max_columns = 256;

// Collects dump text and writes it in pieces that stay under the line buffer's size.
struct vl_hex_out_t {
    vklog_t *cat;
    vklog_config_t *config;
    uint8_t output;
    char buffer[VL_LINE_BUFFER_SIZE];
    size_t used = 0;

    void flush()
    {
        buffer[used] = '\0';
        if (used > 0 && (output & VKLOG_OUTPUT_FILE) != 0) {
            int err_no = 0;
            int rc = vl_hex_buffer_writer(config, &cat->output_file, &err_no, buffer);
            if (rc != 0)
                cat->last_error.store(rc, std::memory_order_relaxed);
        }
        if (used > 0 && (output & VKLOG_OUTPUT_STDOUT) != 0)
            vl_write_all(STDOUT_FILENO, buffer, used);
        used = 0;
    }
    // Room for `need` more bytes, flushing first when short.
    char *room(size_t need)
    {
        if (used + need >= sizeof(buffer))
            flush();
        return buffer + used;
    }
};

void vl_hex_row(vl_hex_out_t *out, const unsigned char *data, size_t offset, size_t count, int columns)
{
    char *p = out->room(20 + 4 * static_cast<size_t>(columns) + 4);
    size_t n = static_cast<size_t>(sprintf(p, "%016lx:", static_cast<unsigned long>(offset)));
    for (int i = 0; i < columns; i++)
        n += static_cast<size_t>(static_cast<size_t>(i) < count ? sprintf(p + n, " %02X", data[offset + i])
                                                                : sprintf(p + n, "   "));
    p[n++] = ' ';
    p[n++] = ' ';
    for (size_t i = 0; i < count; i++) {
        unsigned char c = data[offset + i];
        p[n++] = c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
    }
    p[n++] = '\n';
    out->used += n;
}

} // namespace

int vklog_hex(vklog_t *cat, const char *file, size_t file_len, const char *func, size_t func_len, long line,
              int level, int hex_print_column_count, const void *data, size_t size, const char *title_format,
              ...)
{
    if (cat == nullptr)
        return -1;
    if (cat->activate.load(std::memory_order_relaxed) == 0)
        return 0;
    std::unique_ptr<vl_hex_out_t> out(new (std::nothrow) vl_hex_out_t{});
    if (out == nullptr || !vl_config_acquire(cat, &out->config, &out->output))
        return -2;
    out->cat = cat;
    vklog_config_t *config = out->config;
    char title[1024] = "";
    if (title_format != nullptr) {
        va_list ap;
        va_start(ap, title_format);
        if (vsnprintf(title, sizeof(title), title_format, ap) < 0)
            title[0] = '\0';
        va_end(ap);
    }
    int hlen = vl_set_header(level, config->header_flag, config->include_us_to_time, file, file_len, func,
                             func_len, line, out->buffer, sizeof(out->buffer));
    if (hlen < 0) {
        vl_config_release(cat, config);
        return -1;
    }
    out->used = static_cast<size_t>(hlen);
    out->used += static_cast<size_t>(snprintf(
        out->buffer + out->used, sizeof(out->buffer) - out->used,
        "%s\n======================== start hexlog ========================\nTitle: %s, %lu byte (0x%lx)\n",
        title, title, static_cast<unsigned long>(size), static_cast<unsigned long>(size)));
    out->used = out->used < sizeof(out->buffer) ? out->used : sizeof(out->buffer) - 1;
    int columns = hex_print_column_count > 0 && hex_print_column_count <= s_hex_max_columns
                      ? hex_print_column_count
                      : s_hex_default_columns;
    const auto *bytes = static_cast<const unsigned char *>(data);
    for (size_t off = 0; bytes != nullptr && off < size; off += static_cast<size_t>(columns)) {
        size_t count = size - off < static_cast<size_t>(columns) ? size - off : static_cast<size_t>(columns);
        vl_hex_row(out.get(), bytes, off, count, columns);
    }
    static constexpr char end[] = "========================= end hexlog =========================\n\n";
    memcpy(out->room(sizeof(end)), end, sizeof(end) - 1);
    out->used += sizeof(end) - 1;
    out->flush();
    vl_config_release(cat, config);
    return 0;
}

// ---- enabling, lookup, global handles ---------------------------------------------------
namespace
{

// The built-in standard-output category, outside the table of 12.
vklog_t *vklog_default_stdout()
{
    static vklog_t cat;
    static std::once_flag once;
    std::call_once(once, [] {
        vklog_config_t *config = vklog_config_new();
        if (config == nullptr)
            return;
        (void)vklog_config_set(config, VKLOG_CFG_TYPE_NAME, 14, "default stdout");
        config->output = VKLOG_OUTPUT_STDOUT;
        config->header_flag = VKLOG_HEADER_TIME | VKLOG_HEADER_LEVEL;
        config->level = vklog_level_t{VKLOG_LEVEL_TRACE, '<'};
        vl_load_config_finish(config);
        std::lock_guard<vklog_lock_t> hold(cat.config_lock);
        cat.config = config;
        cat.level.store(config->level);
        cat.output_vklogger.sock = -1;
        cat.output_file.fd_lock = &s_fd_locks[VL_MAX_CATEGORY];
    });
    return &cat;
}

} // namespace

int vklog_enable(vklog_t *cat)
{
    if (cat == nullptr)
        return -1;
    vl_activate(cat);
    return 0;
}

int vklog_disable(vklog_t *cat)
{
    if (cat == nullptr)
        return -1;
    cat->activate.store(0, std::memory_order_relaxed);
    return 0;
}

int vklog_enable_from_config_name(const char *name)
{
    return name != nullptr ? vklog_enable(vl_find_category(name)) : -1;
}

int vklog_disable_from_config_name(const char *name)
{
    return name != nullptr ? vklog_disable(vl_find_category(name)) : -1;
}

vklog_t *vklog_get_category(const char *name)
{
    vklog_t *cat = name != nullptr ? vl_find_category(name) : vklog_default_stdout();
    if (cat != nullptr)
        vl_activate(cat);
    return cat;
}

void vklog_set_global_log_handle(vklog_t *cat)
{
    g_vklog.store(cat, std::memory_order_release);
}

void vklog_set_global_log_console_debug_handle(vklog_t *cat)
{
    g_vklog_console_debug.store(cat, std::memory_order_release);
}

int vklog_cleanup_backup_file(vklog_t *cat)
{
    if (cat == nullptr)
        return -1;
    vklog_config_t *config = nullptr;
    uint8_t output = 0;
    if (!vl_config_acquire(cat, &config, &output))
        return -2;
    int rc = 0;
    {
        std::lock_guard<vklog_lock_t> hold(vl_fd_lock(&cat->output_file));
        rc = vl_cleanup_backup_file(config->backup_path, config->backup_count);
    }
    vl_config_release(cat, config);
    return rc;
}

// ---- set-up, reload, end ----------------------------------------------------------------
namespace
{

// Applies every configuration of a loaded list in order; the last apply error in *err.
void vl_apply_list(vklog_config_t *head, int *err)
{
    while (head != nullptr) {
        vklog_config_t *next = head->next;
        int apply_err = 0;
        if (vklog_apply_config(head, &apply_err) != 0 || apply_err != 0)
            *err = apply_err;
        head = next;
    }
}

bool vl_file_time(const char *path, timespec *mtime)
{
    struct stat st {
    };
    if (stat(path, &st) != 0)
        return false;
    *mtime = st.st_mtim;
    return true;
}

} // namespace

int vklog_initialize_with_config(vklog_config_t *config, int *err)
{
    int err_local = 0;
    err = err != nullptr ? err : &err_local;
    if (config == nullptr) {
        *err = -1;
        return -2;
    }
    vl_load_config_finish(config);
    return vklog_apply_config(config, err) < 0 ? -2 : 0;
}

int vklog_initialize_with_default_config(const char *name, int *err)
{
    if (name == nullptr || strnlen(name, 128) > 127)
        return -1;
    vklog_config_t *config = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    if (config == nullptr)
        return -2;
    if (vklog_config_set(config, VKLOG_CFG_TYPE_NAME, static_cast<unsigned>(strlen(name)), name) != 0) {
        vklog_config_free(config);
        return -1;
    }
    return vklog_initialize_with_config(config, err);
}

int vklog_set_config_path(const char *path)
{
    std::lock_guard<vklog_lock_t> hold(s_reload_lock);
    vklog_manager_t &m = g_vklog_manager;
    if (path == nullptr || m.config_filepath[0] != '\0' ||
        strnlen(path, sizeof(m.config_filepath)) >= sizeof(m.config_filepath))
        return -1;
    vl_copy(m.config_filepath, sizeof(m.config_filepath), path);
    m.reload_use_flag = 1;
    return 0;
}

void vklog_set_reload_disable()
{
    std::lock_guard<vklog_lock_t> hold(s_reload_lock);
    g_vklog_manager.reload_use_flag = 0;
}

int vklog_initialize_with_config_file(const char *path, int *err)
{
    int err_local = 0;
    err = err != nullptr ? err : &err_local;
    *err = 0;
    if (path == nullptr || strnlen(path, 8192) >= 8192) {
        *err = EINVAL;
        return -11;
    }
    {
        std::lock_guard<vklog_lock_t> hold(s_reload_lock);
        vl_copy(g_vklog_manager.config_filepath, sizeof(g_vklog_manager.config_filepath), path);
        g_vklog_manager.reload_use_flag = 1;
    }
    int rc = 0;
    vklog_config_t *list = vl_load_config_from_conf_file(path, &rc, err);
    if (rc != 0)
        return rc;
    {
        std::lock_guard<vklog_lock_t> hold(s_reload_lock);
        (void)vl_file_time(path, &g_vklog_manager.config_file_last_modify_time);
    }
    vl_apply_list(list, err);
    return 0;
}

int vklog_reload(int *err)
{
    int err_local = 0;
    err = err != nullptr ? err : &err_local;
    *err = 0;
    char path[sizeof(g_vklog_manager.config_filepath)];
    {
        std::lock_guard<vklog_lock_t> hold(s_reload_lock);
        vklog_manager_t &m = g_vklog_manager;
        timespec mtime{};
        if (m.reload_use_flag == 0 || m.config_filepath[0] == '\0' ||
            !vl_file_time(m.config_filepath, &mtime))
            return 0;
        if (mtime.tv_sec == m.config_file_last_modify_time.tv_sec &&
            mtime.tv_nsec == m.config_file_last_modify_time.tv_nsec)
            return 0;
        m.config_file_last_modify_time = mtime;
        vl_copy(path, sizeof(path), m.config_filepath);
    }
    int rc = 0;
    vklog_config_t *list = vl_load_config_from_conf_file(path, &rc, err);
    if (rc != 0) {
        *err = rc; // the configurations in force stay
        return 0;
    }
    vl_apply_list(list, err);
    return 0;
}

// Detaches every category from its configuration and forgets the table. A logging call
// still in flight keeps its configuration until it releases it; stale handles stay safe
// (the slots and their locks are static) and log nothing.
void vklog_fini()
{
    vklog_set_global_log_handle(nullptr);
    vklog_set_global_log_console_debug_handle(nullptr);
    std::lock_guard<vklog_lock_t> hold(s_apply_lock);
    unsigned int n = g_vklog_manager.count.load(std::memory_order_relaxed);
    for (unsigned int i = 0; i < n && i < VL_MAX_CATEGORY; i++) {
        vklog_t *cat = &g_vklog_manager.log[i];
        cat->activate.store(0);
        cat->level.store(vklog_level_t{VKLOG_LEVEL_NONE, 0});
        vklog_config_t *old = nullptr;
        {
            std::lock_guard<vklog_lock_t> lock(cat->config_lock);
            old = cat->config;
            cat->config = nullptr;
            if (old != nullptr && old->count_in_use > 0)
                old = nullptr; // the last call in flight frees it
        }
        vklog_config_free(old);
        std::lock_guard<vklog_lock_t> lock(cat->output_vklogger.lock);
        (void)vl_vklogger_socket_close(&cat->output_vklogger);
    }
    g_vklog_manager.count.store(0, std::memory_order_release);
    std::lock_guard<vklog_lock_t> lock(s_reload_lock);
    g_vklog_manager.config_filepath[0] = '\0';
    g_vklog_manager.config_file_last_modify_time = {};
    g_vklog_manager.reload_use_flag = 0;
}
