// main: entry point of quil-manager-agent. Reads the command line and the environment,
// optionally detaches, prepares the shared state, the configuration and the logging,
// refuses a second instance, starts the worker threads and runs the one-second
// housekeeping loop (process_main) until g_stop_the_world is raised. Every exit status is 0.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

#include "cmd_journal.h"
#include "command_handler.h"
#include "dg_tls.h"
#include "global_var.h"
#include "os/linux/olv_linux.h"
#include "os/linux/vk_notify.h"
#include "pkt_proto/proto_send.h"
#include "pub_conf.h"
#include "pub_func.h"
#include "signal_ctl.h"
#include "status_file.h"
#include "thr_command.h"
#include "thr_dgconn.h"
#include "thr_garbage_collector.h"
#include "util.h"
#include "version.h"
#include "vk_string.h"
#include "vk_time.h"
#include "vklog.h"

namespace
{

constexpr const char *k_agent_name = "quil-manager-agent";

// The one-second loop's periods, in seconds of the wall clock.
constexpr time_t k_refresh_period_s = 3;     // logging settings and the pid file's presence
constexpr time_t k_timesync_period_s = 3600; // a time-sync request
// A tick further ahead than this means the wall clock was set back.
constexpr time_t k_clock_set_back_s = 59;

// Prints the version banner and the usage text on standard output and exits with `code`.
// The usage line leaves out -c although the list below it names it.
[[noreturn]] void usage_exit(const char *program, int code)
{
    printf("%s\n", get_manager_full_version_string());
    printf("[usage] %s [-D][-d][-v|-h]\n", program);
    printf(" D : daemonize\n");
    printf(" d : debug\n");
    printf(" v : print version\n");
    printf(" c : print os information.\n");
    printf(" h : print this message\n");
    printf("\n");
    exit(code);
}

// Detaches from the terminal: the parent exits 0, the child starts a new session with
// descriptors 0-2 on /dev/null. No second fork, no change of directory or umask.
void initdaemon()
{
    pid_t pid = fork();
    if (pid != 0)
        exit(0); // the parent; a failed fork also ends here, with status 0 like every exit
    setsid();
    for (int fd = getdtablesize(); fd >= 0; fd--)
        close(fd);
    int null_fd = open("/dev/null", O_RDWR); // becomes descriptor 0
    if (null_fd >= 0) {
        (void)dup(null_fd);
        (void)dup(null_fd);
    }
    // Ignoring SIGCHLD lets the script runner's children go without zombies.
    signal(SIGCHLD, SIG_IGN);
    signal(SIGTSTP, SIG_IGN);
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);
}

void initsignal()
{
    signal(SIGALRM, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    // A file-size limit (RLIMIT_FSIZE) makes a write fail, which is reported like a full
    // disk, instead of ending the daemon.
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGHUP, signal_handler);
    signal(SIGSEGV, signal_handler);
    // The system refuses SIGKILL; the request is kept as a harmless, unchecked call.
    signal(SIGKILL, signal_handler);
    signal(SIGBUS, signal_handler);
    signal(SIGINT, signal_handler);
    signal(SIGABRT, signal_handler);
    // Stray user signals would end the agent silently with its pid file left behind; they
    // are logged and ignored instead.
    signal(SIGUSR1, signal_handler);
    signal(SIGUSR2, signal_handler);
    struct sigaction action {
    };
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(SIGTERM, &action, nullptr);
    atexit(exit_handler);
}

bool time_before(const timeval &a, const timeval &b)
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec < b.tv_usec);
}

// Waits until the tick, sleeping straight to it in steps of at most a second; a signal
// (delivered to this thread first) ends a step early so that its handling is not delayed.
// A tick more than 59 s ahead means the wall clock was set back, which asks for a time
// synchronisation and ends the wait. Returns the time at the end of the wait.
timeval wait_for_tick(const timeval &tick)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    while (time_before(now, tick)) {
        if (tick.tv_sec - now.tv_sec > k_clock_set_back_s) {
            VKLOG_INFO(g_vklog.load(), "[process_main] check GMT \n");
            send_req_timesync();
            break;
        }
        vk_sleep_toward(tick.tv_sec, tick.tv_usec, 1000);
        handle_pending_signals();
        gettimeofday(&now, nullptr);
    }
    return now;
}

// Tells the service manager and the status file that the agent is stopping; once.
void announce_stop()
{
    static bool s_done = false; // main thread only
    if (s_done)
        return;
    s_done = true;
    vk_notify_send("STOPPING=1");
    status_file_final();
}

// Work of one tick at wall-clock second `now` (multiples of the epoch, not of the start).
void run_tick(time_t now, const char *pid_path)
{
    if (now % k_refresh_period_s == 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
        update_vklog();
        if (access(pid_path, F_OK) != 0) {
            g_stop_the_world.store(1);
            VKLOG_INFO(g_vklog.load(), "[process_main] %s process stopped.\n", k_agent_name);
            VKLOG_TRACE(g_vklog_console_debug.load(), "[process_main] %s process stopped.\n", k_agent_name);
            vk_sleep(3000);
        }
    }
    if (now % k_timesync_period_s == 0)
        send_req_timesync();
    int interval = get_conf_value_int_for_idx(g_conf_handle, MGR_CONF_INTERVAL_INFO_LOG);
    if (interval != 0 && now % interval == 0)
        info_log(get_send_queue_count());
}

// Starts the worker threads and runs the one-second loop until g_stop_the_world is set.
// Returns 0.
int process_main(pthread_attr_t *attributes)
{
    VKLOG_INFO(g_vklog.load(), "[process_main] setting sudo flag (%d)\n", init_sudo_flag());
    pthread_t tid;
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
    run_thread(&tid, attributes, thr_DGConn, nullptr, "THR_DGCONN");
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
    init_os();
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
    run_thread(&tid, attributes, thr_command, nullptr, "THR_COMMAND");
    // The garbage collector deliberately shares the command thread's registry name.
    run_thread(&tid, attributes, thr_garbage_collector, nullptr, "THR_COMMAND");
    char pid_path[VK_PATH_SIZE + 32];
    snprintf(pid_path, sizeof(pid_path), "%s/data/manager_agent_pid", g_vk_manager_home);
    vk_notify_send("READY=1");
    // The service manager's watchdog is fed only while the connection and command threads
    // show life within its period; a wedged thread lets it restart the agent.
    const uint64_t watchdog_ms = vk_notify_watchdog_usec() / 1000;
    timeval now{};
    gettimeofday(&now, nullptr);
    timeval tick{now.tv_sec + 1, 0};
    while (g_stop_the_world.load() == 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
        // Also once per tick here: a tick whose work overran the next second never enters
        // the wait's 100 ms polling.
        handle_pending_signals();
        now = wait_for_tick(tick);
        tick = timeval{now.tv_sec + 1, 0};
        run_tick(now.tv_sec, pid_path);
        status_file_tick();
        if (watchdog_ms > 0 && vk_heartbeats_fresh(watchdog_ms))
            vk_notify_send("WATCHDOG=1");
    }
    announce_stop();
    VKLOG_INFO(g_vklog.load(), "[process_main] finished.\n");
    return 0;
}

// Owns the worker-thread attributes: detached, 10 MiB stacks.
struct thread_attributes {
    pthread_attr_t attr;
    thread_attributes()
    {
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, VK_THREAD_STACK_SIZE);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    }
    thread_attributes(const thread_attributes &) = delete;
    thread_attributes &operator=(const thread_attributes &) = delete;
    ~thread_attributes() { pthread_attr_destroy(&attr); }
};

// Runs the worker threads and the loop, then gives the detached threads 2 s to see the
// stop flag. Returns process_main's result.
int run_process()
{
    int ret;
    {
        thread_attributes attributes;
        ret = process_main(&attributes.attr);
        if (g_stop_the_world.load() == 0)
            g_stop_the_world.store(1);
    }
    vk_sleep(2000);
    handle_pending_signals();
    return ret;
}

// The manager home, MGR_QUIL_HOME followed by "/manager", must fit its buffer whole: a cut
// one would put every data file somewhere else. A home too long for it is refused as a bad
// MGR_QUIL_HOME, with the limit, on standard error.
bool manager_home_fits(const char *home)
{
    constexpr std::string_view suffix = "/manager";
    size_t length = strlen(home);
    if (length + suffix.size() < sizeof(g_vk_manager_home))
        return true;
    fprintf(stderr, "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:%d]\n", -3);
    fprintf(stderr, "[main] MGR_QUIL_HOME is %zu characters long; at most %zu fit with \"%.*s\" appended.\n", length,
            sizeof(g_vk_manager_home) - 1 - suffix.size(), static_cast<int>(suffix.size()), suffix.data());
    return false;
}

struct command_line_t {
    bool daemonize = false; // applied after the environment is read
    int debug = 0;
};

// Walks every argument, the program name included. Returns true when the program ends at
// once (-v, -c, -t; -h exits from here); unknown arguments are ignored without a message.
bool scan_command_line(int argc, char **argv, command_line_t *cmd)
{
    for (int i = 0; i < argc; i++) {
        std::string_view arg(argv[i]);
        if (arg == "-D") {
            printf("daemonize on\n");
            cmd->daemonize = true;
        } else if (arg == "-d") {
            printf("debug mode on\n");
            cmd->debug = 1;
        } else if (arg == "-v") {
            printf("%s\n", get_manager_full_version_string());
            return true;
        } else if (arg == "-c") {
            check_os_info(0);
            return true;
        } else if (arg == "-t") {
            dg_tls_check_settings(); // the unit's start check
            return true;
        } else if (arg == "-h") {
            usage_exit(argv[0], 0);
        }
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    g_agent_boot_time = vk_get_time_msec();
    // Start-up messages and the debug-mode console lines reach a redirected standard output
    // as they happen, in order with the library's own writes.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // A patch transfer allocates and frees a packet and a decode workspace of about 64 KiB
    // each per chunk. With the default trim threshold (128 KiB) each free hands the top of
    // the arena back to the kernel and the next chunk faults it in again, which costs the
    // receive thread more than the chunk's own copy. Keeping up to 2 MiB per arena (and
    // mapping only blocks of 1 MiB or more separately) ends that churn.
    mallopt(M_TRIM_THRESHOLD, 2 << 20);
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    // Before the first write: the configuration, the log and the pid record may meet a
    // file-size limit at start, which must fail the write (reported like a full disk), not
    // end the process.
    signal(SIGXFSZ, SIG_IGN);
    init_properties_preset();
    command_line_t cmd;
    if (scan_command_line(argc, argv, &cmd))
        return 0;
    char home[VK_PATH_SIZE] = {};
    if (init_environment(home, sizeof(home)) < 0)
        return 0;
    vk_trim_ex(home, "\"");
    if (!manager_home_fits(home))
        return 0;
    if (cmd.daemonize)
        initdaemon();
    if (set_umask_from_env() < 0)
        return 0;
    if (init_global_var(home) < 0)
        exit(0);
    clear_signal_debug_code();
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
    int ret = initialize_configure_manager_agent(cmd.debug);
    if (ret < 0) {
        printf("[main] initialize_configure_manager_agent has failed. (ret:%d)\n", ret);
        exit(0);
    }
    VKLOG_NOTICE(g_vklog.load(), "g_vk_manager_home[%s]\n", g_vk_manager_home);
    // A bad setting ends the start with one line naming it, on standard error and in the log.
    char refusal[512];
    if (dg_tls_init(refusal, sizeof(refusal)) != 0 || status_file_init(refusal, sizeof(refusal)) != 0) {
        fprintf(stderr, "%s\n", refusal);
        VKLOG_ERROR(g_vklog.load(), "%s\n", refusal);
        exit(0);
    }
    // Read once and taken out of the environment, so that no script inherits the channel.
    set_stop_signal_hook(announce_stop);
    if (vk_notify_init() < 0)
        VKLOG_ERROR(g_vklog.load(), "[MAIN] NOTIFY_SOCKET is not a usable socket address; no notifications.\n");
    // Kernels before 5.18 let execve pass an empty argv: no program name, and the guard
    // then recognises no running agent by name.
    const char *program = argc > 0 && argv[0] != nullptr ? argv[0] : "";
    const char *slash = strrchr(program, '/');
    if (check_double_execution(slash != nullptr ? slash + 1 : program, k_agent_name) != 0)
        exit(0);
    VKLOG_INFO(g_vklog.load(), "[MAIN] start %s. <%s> version %s\n", k_agent_name, "DEBUG",
               get_manager_full_version_string());
    VKLOG_INFO(g_vklog.load(), "[MAIN] HOME: %s\n", g_vk_manager_home);
    set_dg_address();
    init_chunk_hash();
    cmd_journal_open();
    // Transfers cut short by an earlier stop or crash left ".part" files; so may this run.
    if (int removed = remove_partial_patch_files(); removed > 0)
        VKLOG_INFO(g_vklog.load(), "[MAIN] removed %d unfinished patch file(s) from tmp\n", removed);
    atexit([] { (void)remove_partial_patch_files(); });
    initsignal();
    if (nio_seq_lock_init() < 0) {
        VKLOG_ERROR(g_vklog.load(), "[MAIN] nio spinlock init failed(%d)\n", errno);
        exit(0);
    }
    VKLOG_INFO(g_vklog.load(), "[MAIN] initialize resources.\n");
    ret = run_process();
    if (ret == 0)
        VKLOG_INFO(g_vklog.load(), "[MAIN] %s terminated normally.\n", k_agent_name);
    else
        VKLOG_INFO(g_vklog.load(), "[MAIN] %s terminated abnormally.(%d)\n", k_agent_name, ret);
    exit(0);
}
