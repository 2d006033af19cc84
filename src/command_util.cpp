// command_util: the checks and runs under the command handlers. The script runner
// (run_script) runs stop.sh, the patch program and start.sh of a queued command for the
// command thread (execute_command); the patch chunk check of the connection thread
// (check_chunk_validity) belongs to this unit too, in a section of its own.
#include "command_util.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cctype>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "global_var.h"
#include "os/linux/vk_notify.h"
#include "signal_ctl.h"
#include "vk_file.h"
#include "vk_raii.h"
#include "vk_string.h"
#include "vk_time.h"
#include "vklog.h"

extern char **environ;

char g_custom_prefix[CUSTOM_PREFIX_SIZE];
char g_custom_patch_prefix[CUSTOM_PREFIX_SIZE];
int g_custom_prefix_flag = 0;

namespace
{
std::atomic<int> s_stop_requested{0};
} // namespace

void command_stop_request()
{
    s_stop_requested.store(1);
}

void command_stop_clear()
{
    s_stop_requested.store(0);
}

int command_stop_requested()
{
    return s_stop_requested.load();
}

void patch_part_path(const patch_item_t *item, char (&out)[PATCH_PART_PATH_SIZE])
{
    snprintf(out, sizeof(out), "%.*s%s", static_cast<int>(strnlen(item->file_path, sizeof(item->file_path) - 1)),
             item->file_path, PATCH_PART_SUFFIX);
}

// ---- script runner ------------------------------------------------------------------------
//
// One run, on the command thread:
//
//   command line -> pipe2(O_CLOEXEC) -> status RUN -> fork
//     child : own process group, stdin /dev/null, stdout+stderr = pipe, nothing else open,
//             default signal dispositions, empty mask, execve /bin/sh sh -c <command line>
//     parent: read the pipe (waits of at most 2 s) until EOF, time-out or stop request
//             time-out / stop : shell still running -> SIGTERM to the group, up to 2 s for
//                               every member to go, SIGKILL to what is left;
//                               shell already gone -> its leftovers hold the pipe: left alone
//             EOF             : keyword verdict; the shell gets until the time-out to exit
//             then always     : reap the shell
//
// The time-out is measured on the monotonic clock, so a wall-clock step neither ends a
// script early nor keeps it beyond its time; received_time still records the wall-clock start.

namespace
{

constexpr int COMMAND_LINE_SIZE = 1024; // at most 1023 characters
constexpr int READ_CHUNK = 1023;        // bytes taken from the pipe per read
constexpr int SELECT_WAIT_MS = 2000;    // longest wait for output; bounds how late a stop is seen
constexpr int EXIT_POLL_MS = 50;        // poll period while waiting for the shell to exit
constexpr long CLOSE_FD_CAP = 65536;    // highest descriptor closed one by one without close_range

int64_t mono_msec()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

template <size_t N> int field_len(const char (&field)[N])
{
    return static_cast<int>(strnlen(field, N - 1));
}

const char *error_text(int err, char *buf, size_t size)
{
    return strerror_r(err, buf, size); // GNU form: returns the text, which need not be in buf
}

// Appends text after what result_message holds, never beyond its 9215 characters.
void append_result(cmd_info_t *record, const char *text)
{
    size_t len = strnlen(record->result_message, CMD_RESULT_MESSAGE_SIZE - 1);
    vk_strlcpy(record->result_message + len, text, CMD_RESULT_MESSAGE_SIZE - len);
}

// True when every character of the run path is a letter, a digit or one of "/._-+@=,:~".
bool run_path_allowed(const char *path)
{
    for (const char *p = path; *p != '\0'; p++)
        if (!isalnum(static_cast<unsigned char>(*p)) && strchr("/._-+@=,:~", *p) == nullptr)
            return false;
    return true;
}

// Builds the command line of run_type: stop.sh and start.sh under the run-user prefix,
// the patch program with its install-information file under the install-user prefix; the
// prefixes only when the prefix conversion gave 1. Returns 0; -1 unknown run type; -2 the
// line does not fit in 1023 characters (a cut line would run a different path); -3 the run
// path holds a character outside run_path_allowed's set.
int build_command_line(const cmd_info_t *r, int run_type, char (&out)[COMMAND_LINE_SIZE])
{
    // The run path goes into the shell line unquoted, after the run user's prefix: a
    // character the shell reads as syntax would run something outside that prefix.
    if (run_type != RUN_TYPE_SETUP && !run_path_allowed(r->run_path)) {
        out[0] = '\0';
        return -3;
    }
    const bool prefixed = g_custom_prefix_flag == 1;
    const char *home = g_vk_manager_home;
    int n;
    switch (run_type) {
    case RUN_TYPE_STOP:
    case RUN_TYPE_START: {
        const char *script = run_type == RUN_TYPE_STOP ? "stop.sh" : "start.sh";
        n = prefixed ? snprintf(out, sizeof out, "%.*s %.*s/%s", field_len(g_custom_prefix), g_custom_prefix,
                                field_len(r->run_path), r->run_path, script)
                     : snprintf(out, sizeof out, "%.*s/%s", field_len(r->run_path), r->run_path, script);
        break;
    }
    case RUN_TYPE_SETUP:
        n = snprintf(out, sizeof out, "%.*s%s%.*s/tmp/%.*s %.*s/tmp/%d_install_info",
                     prefixed ? field_len(g_custom_patch_prefix) : 0, g_custom_patch_prefix,
                     prefixed ? " " : "", field_len(g_vk_manager_home), home, field_len(r->file_name),
                     r->file_name, field_len(g_vk_manager_home), home, r->agent_type);
        break;
    default:
        out[0] = '\0';
        return -1;
    }
    return n < 0 || n >= COMMAND_LINE_SIZE ? -2 : 0;
}

// What the child needs, all prepared before the fork: after it only async-signal-safe
// calls are allowed, since other threads may hold locks (malloc, logging) at that moment.
struct child_plan_t {
    int write_fd;
    unsigned close_limit;
    char *argv[4];
};

// Closes every descriptor from 3 on, so no socket, log file or pipe of the agent reaches
// the script.
void close_from_3(unsigned limit)
{
#ifdef SYS_close_range
    if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0)
        return;
#endif
    for (unsigned fd = 3; fd < limit; ++fd)
        close(static_cast<int>(fd));
}

[[noreturn]] void exec_child(const child_plan_t &plan)
{
    // Own process group, so a stop or time-out ends the script and everything it started.
    setpgid(0, 0);
    int out = fcntl(plan.write_fd, F_DUPFD, 3); // above 2, so the dup2 below really copies
    if (out < 0)
        _exit(127);
    int null_fd = open("/dev/null", O_RDONLY);
    if (null_fd < 0)
        close(0);
    else if (null_fd != 0)
        dup2(null_fd, 0);
    if (dup2(out, 1) < 0 || dup2(out, 2) < 0)
        _exit(127);
    close_from_3(plan.close_limit);
    // The agent ignores SIGPIPE, SIGALRM (and as a daemon SIGCHLD and the terminal stops);
    // ignored dispositions survive exec, so every signal goes back to its default before
    // the mask the parent set for the fork is lifted.
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction cur = {};
        if (sig != SIGKILL && sig != SIGSTOP && sigaction(sig, nullptr, &cur) == 0 &&
            cur.sa_handler != SIG_DFL)
            sigaction(sig, &dfl, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve("/bin/sh", plan.argv, environ);
    _exit(127);
}

// Forks the shell for command. Returns its pid, or -1 with errno set when fork failed.
pid_t start_child(char *command, int write_fd)
{
    static char arg0[] = "sh", arg1[] = "-c";
    rlimit nofile{};
    long limit = getrlimit(RLIMIT_NOFILE, &nofile) == 0 && nofile.rlim_cur != RLIM_INFINITY
                     ? static_cast<long>(std::min<rlim_t>(nofile.rlim_cur, CLOSE_FD_CAP))
                     : CLOSE_FD_CAP;
    child_plan_t plan{write_fd, static_cast<unsigned>(limit), {arg0, arg1, command, nullptr}};
    // All signals blocked across the fork: no handler of the agent may run in the child
    // before its dispositions are reset.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    pid_t pid = fork();
    if (pid == 0)
        exec_child(plan);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (pid > 0)
        setpgid(pid, pid); // also here, so the group exists before any kill; EACCES after exec is fine
    errno = err;
    return pid;
}

// True when the shell has exited (its zombie stays until reap_child), or is no child of ours.
bool shell_exited(pid_t pid)
{
    siginfo_t info{};
    int ret;
    do
        ret = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    while (ret < 0 && errno == EINTR);
    return (ret == 0 && info.si_pid == pid) || ret < 0;
}

// Polls, without reaping, until the shell has exited or the monotonic deadline passes (or,
// with a record, a stop of that command is requested). True when it has exited.
bool wait_exit_until(pid_t pid, int64_t deadline, bool stoppable = false)
{
    for (;;) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        vk_heartbeat(HEARTBEAT_COMMAND); // a script that runs long is no hang of the thread
        if (shell_exited(pid))
            return true;
        if (mono_msec() >= deadline || (stoppable && command_stop_requested()))
            return false;
        vk_sleep(EXIT_POLL_MS);
    }
}

// True while a process of group pgid has not ended. Zombies do not count: the shell's waits
// for reap_child, and the script's orphans wait for whoever adopted them, which may be slow.
bool group_alive(pid_t pgid)
{
    if (kill(-pgid, 0) < 0 && errno == ESRCH)
        return false;
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return true; // cannot tell: the grace runs out and SIGKILL follows
    bool alive = false;
    while (!alive) {
        const dirent *entry = readdir(proc);
        if (entry == nullptr)
            break;
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        char path[sizeof("/proc//stat") + sizeof(entry->d_name)], stat[512];
        snprintf(path, sizeof(path), "/proc/%s/stat", entry->d_name);
        vk_unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
        ssize_t n = fd.fd >= 0 ? read(fd.fd, stat, sizeof(stat) - 1) : -1;
        if (n <= 0)
            continue;
        stat[n] = '\0';
        // "pid (comm) state ppid pgrp ...": comm may hold anything, so parse after its last ')'.
        const char *end = strrchr(stat, ')');
        char state = 0;
        long ppid = 0, pgrp = 0;
        if (end != nullptr && sscanf(end + 1, " %c %ld %ld", &state, &ppid, &pgrp) == 3)
            alive = pgrp == pgid && state != 'Z' && state != 'X';
    }
    closedir(proc);
    return alive;
}

// Ends the script's whole process group: SIGTERM to every member, then up to 2000 ms for all
// of them to go (a script that traps TERM gets that long to clean up or roll back), then
// SIGKILL to what is left. The shell is not reaped here, so its zombie keeps the group id
// from being taken by another process meanwhile.
void end_process_group(pid_t pid)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    kill(-pid, SIGTERM);
    kill(pid, SIGTERM); // reaches the shell even if it never got its own group
    const int64_t deadline = mono_msec() + RUN_SCRIPT_KILL_GRACE_MS;
    while ((group_alive(pid) || !shell_exited(pid)) && mono_msec() < deadline) {
        vk_heartbeat(HEARTBEAT_COMMAND);
        vk_sleep(EXIT_POLL_MS);
    }
    if (!group_alive(pid) && shell_exited(pid))
        return;
    VKLOG_INFO(g_vklog.load(), "[run_script] SIGTERM failed, send SIGKILL\n");
    kill(pid, SIGKILL);
    kill(-pid, SIGKILL);
}

// Copies one read of output at len (NUL bytes become blanks, so the text reaching the
// server is not cut short), up to 8191 characters of result_message in all. Past the cap
// the output is dropped: a chatty script cannot grow the record.
void append_output(cmd_info_t *record, size_t &len, const char *data, size_t n)
{
    if (len >= static_cast<size_t>(RUN_SCRIPT_OUTPUT_MAX))
        return;
    size_t take = std::min(n, static_cast<size_t>(RUN_SCRIPT_OUTPUT_MAX) - len);
    for (size_t i = 0; i < take; ++i)
        record->result_message[len + i] = data[i] == '\0' ? ' ' : data[i];
    len += take;
    record->result_message[len] = '\0';
}

// The checks at the top of each pass: -99 when more than the time-out has passed since the
// start, -98 when a stop was requested, else 0.
int timeout_or_stop(cmd_info_t *record, pid_t pid, int64_t elapsed)
{
    if (elapsed > record->timeout) {
        int32_t st = record->status;
        VKLOG_INFO(
            g_vklog.load(),
            "[run_script] timeout case. pid[%d] status[%d][%s] timeout[%d] start_time[%llu] cur_time[%llu] "
            "execution_id [%s]\n",
            pid, st, cmd_status_name(st), record->timeout,
            static_cast<unsigned long long>(record->received_time),
            static_cast<unsigned long long>(vk_get_time_msec()), record->execution_id);
        return -99;
    }
    // A patch_stop marks the ring's record STOP and raises the stop request; this thread runs
    // a private copy of the record, so the request is what it sees.
    if (command_stop_requested()) {
        VKLOG_INFO(g_vklog.load(),
                   "[run_script] command stop case. pid[%d] status[%d][%s] start_time[%llu] cur_time[%llu] "
                   "execution_id [%s]\n",
                   pid, CMD_STATUS_STOP, cmd_status_name(CMD_STATUS_STOP),
                   static_cast<unsigned long long>(record->received_time),
                   static_cast<unsigned long long>(vk_get_time_msec()), record->execution_id);
        return -98;
    }
    return 0;
}

// Reads the script's output until it ends, the time-out passes or a stop is requested.
// Returns 0 output ended (EOF or a failed read), -97 the wait failed, -98 stop, -99 time-out.
int collect_output(cmd_info_t *record, int fd, pid_t pid, int64_t start, size_t &len)
{
    char buf[READ_CHUNK + 1] = {};
    char err[128];
    for (;;) {
        vk_heartbeat(HEARTBEAT_COMMAND);
        int64_t elapsed = mono_msec() - start;
        if (int rc = timeout_or_stop(record, pid, elapsed); rc != 0)
            return rc;
        // At most 2 s, and no longer than the time-out leaves. poll waits as select would,
        // without select's limit on the descriptor number.
        int wait_ms = static_cast<int>(std::min<int64_t>(SELECT_WAIT_MS, record->timeout - elapsed + 1));
        pollfd pfd{fd, POLLIN, 0};
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        int ready = poll(&pfd, 1, wait_ms);
        if (ready < 0 && errno == EINTR) // a handled signal (SIGHUP) is no failure of the script
            continue;
        if (ready < 0) {
            VKLOG_ERROR(g_vklog.load(), "[run_script] select failed. Error[%s]\n",
                        error_text(errno, err, sizeof err));
            append_result(record, "[agent manager] select failed");
            return -97;
        }
        if (ready == 0)
            continue;
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        ssize_t n = read(fd, buf, READ_CHUNK);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0) {
            VKLOG_INFO(g_vklog.load(), "[run_script] read end.\n");
            return 0;
        }
        if (n < 0) {
            VKLOG_ERROR(g_vklog.load(), "[run_script] read failed. Error[%s]\n",
                        error_text(errno, err, sizeof err));
            return 0;
        }
        append_output(record, len, buf, static_cast<size_t>(n));
    }
}

// Judges the output of this run (result_message[from, to)) by its keywords; the bytes are
// searched as bytes. "vkError" wins over "vkSuccess". Returns 0 (result 1) or -97 (result 2).
int judge_output(cmd_info_t *record, size_t from, size_t to)
{
    const char *out = record->result_message + from;
    size_t n = to > from ? to - from : 0;
    if (memmem(out, n, "vkError", 7) != nullptr) {
        record->result = CMD_RESULT_FAIL;
        return -97;
    }
    if (memmem(out, n, "vkSuccess", 9) == nullptr) {
        record->result = CMD_RESULT_FAIL;
        append_result(record, "[agent manager] Keyword(vkSuccess, vkError) does not exist");
        return -97;
    }
    record->result = CMD_RESULT_SUCCESS;
    return 0;
}

// After the output loop. A stop or time-out ends the script's group while the script itself
// (the shell, or anything it still waits for) runs; once the shell has exited, what it left
// running in the background (a daemon holding the pipe) is not the script and is left alone.
// When the output ended the keyword verdict is taken and the shell gets until the time-out to
// exit. Returns the final code of the run.
int settle_run(cmd_info_t *record, int rc, pid_t pid, int64_t start, size_t start_len, size_t len)
{
    if (rc == -99 || rc == -98) {
        if (shell_exited(pid))
            VKLOG_INFO(g_vklog.load(),
                       "[run_script] the script has ended; the processes it left holding its output are left "
                       "running. pid[%d] execution_id [%s]\n",
                       pid, record->execution_id);
        else
            end_process_group(pid);
        record->result = rc == -99 ? CMD_RESULT_TIMEOUT : CMD_RESULT_SUCCESS;
        append_result(record,
                      rc == -99 ? "[agent manager] command timeout" : "[agent manager] command stop success");
        return rc;
    }
    if (rc == 0)
        rc = judge_output(record, start_len, len);
    // The output may end while the shell goes on (exec >/dev/null; sleep ...): it gets until
    // the time-out or a stop, then its group is ended and the verdict stands. The command
    // thread never waits for a script without bound.
    if (!wait_exit_until(pid, start + record->timeout, true)) {
        VKLOG_INFO(g_vklog.load(),
                   "[run_script] output ended but the shell still runs at the time-out or stop. pid[%d] timeout[%d] "
                   "execution_id [%s]\n",
                   pid, record->timeout, record->execution_id);
        end_process_group(pid);
    }
    return rc;
}

void reap_child(pid_t pid)
{
    char err[128];
    pid_t ret;
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    do
        ret = waitpid(pid, nullptr, 0);
    while (ret < 0 && errno == EINTR);
    if (ret < 0)
        VKLOG_ERROR(g_vklog.load(), "[run_script] waitpid failed. error[%s]\n",
                    error_text(errno, err, sizeof err));
    else
        VKLOG_INFO(g_vklog.load(), "[run_script] child process pid[%d] terminated successfully\n", pid);
}

// Refuses a run for which no command line can be built. Returns -97 (result 2).
int refuse_command_line(cmd_info_t *record, int run_type, int reason, const char *command)
{
    record->result = CMD_RESULT_FAIL;
    if (reason == -1) {
        VKLOG_ERROR(g_vklog.load(), "[run_script] unknown run_type[%d]\n", run_type);
        return -97;
    }
    if (reason == -3) {
        VKLOG_ERROR(g_vklog.load(), "[run_script] run path not allowed. run_type[%d][%s] run_path[%s]\n", run_type,
                    run_type_name(run_type), record->run_path);
        append_result(record, "[agent manager] run path is not allowed");
        return -97;
    }
    VKLOG_ERROR(g_vklog.load(), "[run_script] command line too long. run_type[%d][%s] command[%s]\n",
                run_type, run_type_name(run_type), command);
    append_result(record, "[agent manager] command line too long");
    return -97;
}

} // namespace

int run_script(cmd_info_t *record, int run_type)
{
    if (record == nullptr)
        return -97;
    // The shell must stay a waitable child even where the daemon ignores SIGCHLD.
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, nullptr);
    // From here received_time is the start of this run; the time-out counts from it alone.
    record->received_time = static_cast<uint64_t>(vk_get_time_msec());
    const int64_t start = mono_msec();
    record->result_message[CMD_RESULT_MESSAGE_SIZE - 1] = '\0';
    const size_t start_len = strlen(record->result_message);
    size_t len = start_len;

    char command[COMMAND_LINE_SIZE];
    int built = build_command_line(record, run_type, command);
    if (built != 0)
        return refuse_command_line(record, run_type, built, command);
    VKLOG_DEBUG(g_vklog.load(), "[run_script] run_type[%d][%s] command[%s]\n", run_type,
                run_type_name(run_type), command);

    // A stop that came between two runs of the command starts nothing more.
    if (command_stop_requested()) {
        VKLOG_INFO(g_vklog.load(),
                   "[run_script] command stop case before the run; nothing started. run_type[%d][%s] execution_id [%s]\n",
                   run_type, run_type_name(run_type), record->execution_id);
        record->result = CMD_RESULT_SUCCESS;
        append_result(record, "[agent manager] command stop success");
        return -98;
    }

    char err[128];
    int fds[2];
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    if (pipe2(fds, O_CLOEXEC) != 0) {
        VKLOG_ERROR(g_vklog.load(), "[run_script] pipe failed. Error[%s]\n",
                    error_text(errno, err, sizeof err));
        record->result = CMD_RESULT_FAIL;
        append_result(record, "[agent manager] pipe failed");
        return -1;
    }
    vk_unique_fd read_end(fds[0]);
    vk_unique_fd write_end(fds[1]);

    // The record is the command thread's working copy; RUN marks it as started.
    record->status = CMD_STATUS_RUN;
    pid_t pid = start_child(command, write_end.fd);
    if (pid < 0) {
        VKLOG_ERROR(g_vklog.load(), "[run_script] fork failed. Error[%s]\n",
                    error_text(errno, err, sizeof err));
        record->result = CMD_RESULT_FAIL;
        append_result(record, "[agent manager] fork failed");
        return -2;
    }
    close(write_end.fd); // only the child may hold the write end, or EOF never comes
    write_end.fd = -1;
    int32_t st = record->status;
    VKLOG_INFO(g_vklog.load(), "[run_script] start command[%s] pid[%d] status[%d][%s] execution_id [%s]\n",
               command, pid, st, cmd_status_name(st), record->execution_id);

    int rc = collect_output(record, read_end.fd, pid, start, len);
    rc = settle_run(record, rc, pid, start, start_len, len);
    close(read_end.fd);
    read_end.fd = -1;
    reap_child(pid);
    return rc;
}

// ---- chunk check ----------------------------------------------------------------------------

namespace
{

// Creates the transfer's ".part" file afresh with mode 0755: never through a link planted in
// tmp, and writable by no one else at any moment. Returns the stream, or null.
FILE *create_patch_file(const patch_item_t *item)
{
    char part[PATCH_PART_PATH_SIZE];
    patch_part_path(item, part);
    int fd = vk_create_file_fresh(part, 0755);
    if (fd < 0)
        return nullptr;
    FILE *file = fdopen(fd, "wb");
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    // Chunks come as whole blocks of up to 64 KiB, one fwrite each: a stream buffer would
    // only copy the first 4 KiB of every chunk aside and split its write in two.
    setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

} // namespace

int check_chunk_validity(const req_file_chunk_message_t *chunk, patch_item_t *item, cmd_info_t *record)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    // A chunk_size beyond the data carried would make the write read past the message.
    if (chunk->chunk_size > chunk->chunk_data.size) {
        VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] chunk size is larger than the chunk data. chunk_size[%llu] chunk_data[%llu]\n",
                    static_cast<unsigned long long>(chunk->chunk_size),
                    static_cast<unsigned long long>(chunk->chunk_data.size));
        snprintf(record->result_message, sizeof(record->result_message),
                 "[agent manager] chunk size is incorrect (chunk_size %llu / chunk data %llu)",
                 static_cast<unsigned long long>(chunk->chunk_size),
                 static_cast<unsigned long long>(chunk->chunk_data.size));
        return 1;
    }
    // Chunk 1 opens the file once; a repeated first chunk is refused below by the order
    // check without truncating what was written.
    if (chunk->chunk_index == 1 && item->last_chunk_index == 0 && item->file == nullptr) {
        item->file = create_patch_file(item);
        if (item->file == nullptr) {
            VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] idx[%d] setup_file_name[%s] make failed. file size[%d]\n",
                        static_cast<int>(chunk->chunk_index), item->file_path, static_cast<int>(item->file_size));
            snprintf(record->result_message, sizeof(record->result_message),
                     "[agent manager] file(%s) write(fopen) failed", item->file_path);
            return 1;
        }
    }
    if (chunk->chunk_index == item->last_chunk_index + 1) {
        const uint64_t now = static_cast<uint64_t>(vk_get_time_msec());
        const uint64_t elapsed = now - record->received_time;
        if (now > record->received_time && elapsed > static_cast<uint64_t>(record->timeout)) {
            VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] The Install of the chunk Timeout. now_time[%llu] target_timeout[%d]\n",
                        static_cast<unsigned long long>(elapsed), record->timeout);
            snprintf(record->result_message, sizeof(record->result_message),
                     "[agent manager] The Install of the chunk Timeout. now_time[%llu] target_timeout[%d]",
                     static_cast<unsigned long long>(elapsed), record->timeout);
            return 1;
        }
        return 0;
    }
    VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] The order of the chunk index is incorrect. chunk_index[%llu] item->chunk_index[%llu]\n",
                static_cast<unsigned long long>(chunk->chunk_index),
                static_cast<unsigned long long>(item->last_chunk_index));
    snprintf(record->result_message, sizeof(record->result_message),
             "[agent manager] chunk oreder is incoreect (Expected value %llu / received value %llu)",
             static_cast<unsigned long long>(item->last_chunk_index + 1),
             static_cast<unsigned long long>(chunk->chunk_index));
    return 1;
}
