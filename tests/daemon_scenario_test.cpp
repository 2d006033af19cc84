// The real quil-manager-agent binary (QUIL_AGENT_BIN), each test in its own installation home;
// every agent a test starts (the pid file's included) is killed on the way out if still alive.
#include "daemon_support.h"
#include "version.h"

#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <regex>

namespace
{

using namespace daemon_support;
using namespace std::chrono_literals;

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + what.size()))
        n++;
    return n;
}

// Exit status of our child, or -1 when it has not ended within the time-out.
int wait_exit(pid_t pid)
{
    int status = 0;
    if (!eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }))
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The command line of a live process (a zombie's is empty), NULs turned into spaces.
std::string cmdline_of(pid_t pid)
{
    std::string text = read_file("/proc/" + std::to_string(pid) + "/cmdline");
    std::replace(text.begin(), text.end(), '\0', ' ');
    return text;
}

// True when some line of `text` is "[dd hh:mm:ss][<pid>][<label>]" followed by what the
// regular expression `message` matches.
bool has_log_line(const std::string &text, pid_t pid, const std::string &label, const std::string &message)
{
    return std::regex_search(text, std::regex("(^|\n)\\[\\d\\d \\d\\d:\\d\\d:\\d\\d\\]\\[" +
                                              std::to_string(pid) + "\\]\\[" + label + "\\]" + message));
}

// A private installation home <tmp>/manager/data and the agents started in it.
class DaemonScenario : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path.empty());
        ASSERT_EQ(mkdir(manager.c_str(), 0700), 0);
        ASSERT_EQ(mkdir((manager + "/data").c_str(), 0700), 0);
        for (const char *pass : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char *v = getenv(pass))
                env.push_back(std::string(pass) + "=" + v);
        }
    }
    void TearDown() override
    {
        for (pid_t pid : children)
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0 && kill(pid, SIGKILL) == 0)
                waitpid(pid, nullptr, 0);
        for (pid_t pid : {recorded_pid(), daemon}) // a detached daemon, noted or not
            if (pid > 0 && cmdline_of(pid).find("quil-manager-agent") != std::string::npos)
                kill(pid, SIGKILL);
    }

    // Starts the agent with `args` and environment `e` (default: `env`); standard output and
    // error go to <home>/<tag>.out and .err.
    pid_t start(const std::string &tag, std::vector<std::string> args = {}, std::vector<std::string> e = {})
    {
        args.insert(args.begin(), QUIL_AGENT_BIN);
        pid_t pid = spawn(args, e.empty() ? env : e, home + "/" + tag + ".out", home + "/" + tag + ".err");
        EXPECT_GT(pid, 0);
        children.push_back(pid);
        return pid;
    }
    std::vector<std::string> env_with(const std::string &drop, const std::string &add)
    {
        std::vector<std::string> e;
        for (auto &s : env)
            if (s.rfind(drop, 0) != 0)
                e.push_back(s);
        if (!add.empty())
            e.push_back(add);
        return e;
    }
    std::string out(const std::string &tag) { return read_file(home + "/" + tag + ".out"); }
    std::string log() { return read_file(manager + "/log/quil-manager-agent.log"); }
    std::string pid_path() { return manager + "/data/manager_agent_pid"; }
    pid_t recorded_pid() { return static_cast<pid_t>(atoi(read_file(pid_path()).c_str())); }
    bool log_has(const std::string &text, size_t times = 1)
    {
        return eventually([&] { return count_of(log(), text) >= times; });
    }

    temp_dir dir{"quil_scenario"};
    std::string home = dir.path;
    std::string manager = home + "/manager";
    std::string config = manager + "/data/config";
    // The receiver is a closed loopback port: the agent stays up, retrying the connection.
    std::vector<std::string> env = {"PATH=/usr/bin:/bin", "MGR_QUIL_HOME=" + home,
                                    "MGR_QUIL_MANAGER_HOME=" + manager, "MGR_RECEIVER_ADDR=127.0.0.1:1"};
    std::vector<pid_t> children; // our own children, reaped or killed on the way out
    pid_t daemon = 0;            // the detached daemon, killed if still running
};

// One home through a whole life: a first start beside a pid file naming a live program that
// is not an agent, a refused second instance, SIGHUP and SIGTERM; then a restart over the
// existing config and the stale pid file, stopped by removing the pid file.
TEST_F(DaemonScenario, FirstStartSecondInstanceSignalsRestartAndPidFileStop)
{
    child_process other{spawn({"/bin/sleep", "60"})};
    ASSERT_GT(other.pid, 0);
    write_file(pid_path(), std::to_string(other.pid));
    pid_t agent = start("first", {"-x", "-d"}); // -x ignored
    ASSERT_TRUE(log_has("[check_os_info] Machine : ")) << log() << out("first");

    // Standard output before logging exists, then the log in start-up order.
    const std::string stdout_start = "debug mode on\nenv MGR_QUIL_HOME(" + std::to_string(home.size()) +
                                     ")[" + home + "]\nenv MGR_RECEIVER_ADDR(256)[127.0.0.1:1]\n[main] (" +
                                     config + ") file already exists.\n";
    EXPECT_EQ(out("first").substr(0, stdout_start.size()), stdout_start);
    const std::string steps[] = {"write pid. " + std::to_string(agent) + "\n",
                                 "[MAIN] start quil-manager-agent. <DEBUG> version ",
                                 std::string(get_manager_full_version_string()) + "\n",
                                 "[MAIN] HOME: " + manager + "\n",
                                 "[MAIN] initialize resources.\n",
                                 "[check_os_info] OS Name : "};
    std::string text = log();
    for (size_t i = 0, at = 0; i < std::size(steps); i++)
        ASSERT_NE(at = text.find(steps[i], at), std::string::npos) << steps[i] << "\n" << text;
    EXPECT_TRUE(has_log_line(text, agent, "INFO", R"(\[MAIN\] start quil-manager-agent\. <DEBUG> version )"))
        << text;
    EXPECT_EQ(read_file(config), "MGR_INTERVAL_INFO_LOG=300\nMGR_LOG_DIRECTORY=${MGR_QUIL_MANAGER_HOME}/log\n"
                                 "MGR_LOG_FILENAME=quil-manager-agent.log\nMGR_LOG_LEVEL=info\n"
                                 "MGR_INTERVAL_GARBAGE_COLLECT=86400\n");
    EXPECT_EQ(recorded_pid(), agent);
    // With -d the console debug lines go to standard output: the guard read the other
    // program's pid and let the start go on.
    EXPECT_TRUE(contains(out("first"), "open file. " + pid_path() + "(" + std::to_string(other.pid) + ")\n"));

    EXPECT_EQ(wait_exit(start("second")), 0);
    EXPECT_TRUE(contains(log(), "[KTR-OSM-00020080] Already exists. pid:" + std::to_string(agent) +
                                    ", ProcessName:quil-manager-agent\n"))
        << log();

    ASSERT_EQ(kill(agent, SIGHUP), 0);
    ASSERT_TRUE(log_has("[KTR-OSM-00040040] SIGHUP sig caught\n"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(waitpid(agent, nullptr, WNOHANG), 0) << "SIGHUP and the second instance leave it running";
    EXPECT_EQ(count_of(log(), "SIGHUP sig caught"), 1u);

    ASSERT_EQ(kill(agent, SIGTERM), 0);
    EXPECT_EQ(wait_exit(agent), 0);
    text = log();
    EXPECT_TRUE(has_log_line(text, agent, "ERRO", R"(\[KTR-OSM-00040050\] SIGTERM sig caught\.\n)")) << text;
    // One breadcrumb for each thread: main, connection, sender, command, collector.
    for (const char *thread : {"main_thr \\[.*/src/[a-z_]+", "dgconn_thr \\[.*thr_dgconn", "dgconn_sender_thr \\[.*thr_dgconn",
                               "command_thr \\[.*thr_command", "garbage_thr \\[.*thr_garbage_collector"})
        EXPECT_TRUE(has_log_line(text, agent, "ERRO",
                                 std::string(R"(\[vk_debug_logging\] )") + thread + R"(\.cpp\]\[\d+\]\n)"))
            << thread << "\n" << text;
    EXPECT_EQ(count_of(text, "[vk_debug_logging] "), 5u);
    EXPECT_TRUE(out("first").ends_with("[exit_handler] terminated.\n")) << out("first");

    // The restart finds its config (no first-start message) and takes a quoted home.
    pid_t again = start("again", {}, env_with("MGR_QUIL_HOME=", "MGR_QUIL_HOME=\"" + home + "\""));
    ASSERT_TRUE(log_has("[MAIN] initialize resources.\n", 2)) << log();
    EXPECT_EQ(count_of(log(), "[MAIN] HOME: " + manager + "\n"), 2u);
    EXPECT_FALSE(contains(out("again"), "file already exists"));
    ASSERT_EQ(unlink(pid_path().c_str()), 0);
    // Seen at the next second divisible by 3; the exit follows some 6 s later.
    EXPECT_TRUE(log_has("[process_main] quil-manager-agent process stopped.\n"));
    EXPECT_EQ(wait_exit(again), 0);
    EXPECT_TRUE(contains(log(), "[MAIN] quil-manager-agent terminated normally.\n"));
    EXPECT_TRUE(contains(out("again"), "[exit_handler] terminated.\n"));
}

// A fault: its line, the breadcrumbs and exit status 0 through exit_handler (which frees the log
// in signal context: a thread-sanitized agent would report that and end with its own status).
TEST_F(DaemonScenario, FaultSignalLogsDumpAndExitsZero)
{
#if defined(__SANITIZE_THREAD__)
    // The TSan runtime holds a signal sent from outside until one of its own safe points,
    // where the fault path's logging and exit can wait on the runtime's locks for ever. The
    // plain and ASan runs cover this path.
    GTEST_SKIP() << "fault path not exercised under TSan";
#endif
    const char *tsan = getenv("TSAN_OPTIONS");
    pid_t agent = start("segv", {},
                        env_with("TSAN_OPTIONS=", std::string("TSAN_OPTIONS=") + (tsan ? tsan : "") +
                                                      ":report_signal_unsafe=0"));
    ASSERT_TRUE(log_has("[MAIN] initialize resources.\n")) << log();
    ASSERT_EQ(kill(agent, SIGSEGV), 0);
    EXPECT_EQ(wait_exit(agent), 0);
    std::string text = log();
    EXPECT_TRUE(has_log_line(text, agent, "ERRO", R"(\[KTR-OSM-00040050\] SIGSEGV sig caught\.)")) << text;
    EXPECT_TRUE(has_log_line(text, agent, "ERRO", R"(\[vk_debug_logging\] main_thr \[)")) << text;
    EXPECT_TRUE(out("segv").ends_with("[exit_handler] terminated.\n"));
}

TEST_F(DaemonScenario, DetachedDaemonKeepsRunningUnderItsOwnPid)
{
    EXPECT_EQ(wait_exit(start("d", {"-D"})), 0); // at once: the daemon is no child of ours
    EXPECT_EQ(out("d").substr(0, 13), "daemonize on\n");
    ASSERT_TRUE(log_has("[MAIN] initialize resources.\n")) << log();
    daemon = recorded_pid();
    EXPECT_TRUE(contains(cmdline_of(daemon), "quil-manager-agent -D"));
    std::this_thread::sleep_for(500ms);
    EXPECT_NE(cmdline_of(daemon), "") << "the daemon keeps running";
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    EXPECT_TRUE(eventually([&] { return cmdline_of(daemon).empty(); }));
}

// Without a usable receiver address the agent has nothing to do: it says so and stops by
// itself, cleanly.
TEST_F(DaemonScenario, NoReceiverAddressStopsTheAgent)
{
    pid_t agent = start("noaddr", {}, env_with("MGR_RECEIVER_ADDR=", "MGR_RECEIVER_ADDR=nocolon"));
    EXPECT_EQ(wait_exit(agent), 0);
    std::string text = log();
    EXPECT_EQ(count_of(text, "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR]\n"), 2u) << text;
    EXPECT_EQ(count_of(text, "[KTR-OSM-00020020] receiver ip:port [MGR_RECEIVER_ADDR] is empty.\n"), 1u);
    EXPECT_TRUE(has_log_line(text, agent, "ERRO", R"(\[thr_DGConn\] Check Option Value\. \[MGR_RECEIVER_ADDR\]\n)"));
    EXPECT_TRUE(contains(text, "[MAIN] quil-manager-agent terminated normally.\n"));
}

// Starts that end at once with status 0: the printing options (unknown arguments ignored,
// nothing written), then the environment errors.
TEST_F(DaemonScenario, StartsThatEndAtOnce)
{
    utsname host{};
    ASSERT_EQ(uname(&host), 0);
    const std::string version = std::string(get_manager_full_version_string()) + "\n",
                      os = std::string("[check_os_info] OS Name : ") + host.sysname +
                           "\n[check_os_info] Nodename : " + host.nodename +
                           "\n[check_os_info] Release : " + host.release +
                           "\n[check_os_info] Version : " + host.version +
                           "\n[check_os_info] Machine : " + host.machine + "\n",
                      // The usage line leaves out -c; the list names it.
        usage = version + "[usage] " + QUIL_AGENT_BIN +
                " [-D][-d][-v|-h]\n D : daemonize\n d : debug\n v : print version\n"
                " c : print os information.\n h : print this message\n\n",
                      no_home =
                          "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:";
    const struct {
        std::vector<std::string> args, e;
        std::string out, err;
    } cases[] = {
        {{"-y", "-c", "-v"}, env, os, ""},
        {{"-h", "-v"}, env, usage, ""},
        {{"-v", "-D"}, env, version, ""},
        {{}, env_with("MGR_QUIL_HOME=", ""), "", no_home + "0]\n"}, // unset, empty, 256 characters
        {{}, env_with("MGR_QUIL_HOME=", "MGR_QUIL_HOME="), "", no_home + "0]\n"},
        {{}, env_with("MGR_QUIL_HOME=", "MGR_QUIL_HOME=" + std::string(256, 'h')), "", no_home + "-3]\n"},
        // Under 256, but too long to keep "/manager" after it.
        {{},
         env_with("MGR_QUIL_HOME=", "MGR_QUIL_HOME=" + std::string(248, 'h')),
         "env MGR_QUIL_HOME(248)[" + std::string(248, 'h') + "]\nenv MGR_RECEIVER_ADDR(256)[127.0.0.1:1]\n",
         no_home + "-3]\n[main] MGR_QUIL_HOME is 248 characters long; at most 247 fit with \"/manager\" appended.\n"},
        // The default log directory needs MGR_QUIL_MANAGER_HOME: start-up stops before the guard.
        {{},
         env_with("MGR_QUIL_MANAGER_HOME=", ""),
         "env MGR_QUIL_HOME(" + std::to_string(home.size()) + ")[" + home +
             "]\nenv MGR_RECEIVER_ADDR(256)[127.0.0.1:1]\n[main] (" + config +
             ") file already exists.\n[init_vklog] convert_env_path() has failed. (ret: -3)\n"
             "[main] init_vklog() has failed. (ret:-1)\n",
         ""}};
    for (size_t i = 0; i < std::size(cases); i++) {
        std::string tag = "case" + std::to_string(i);
        EXPECT_EQ(wait_exit(start(tag, cases[i].args, cases[i].e)), 0) << tag;
        EXPECT_EQ(out(tag), cases[i].out) << tag;
        EXPECT_EQ(read_file(home + "/" + tag + ".err"), cases[i].err) << tag;
        EXPECT_TRUE(i != 2 || access(config.c_str(), F_OK) != 0) << "the printing options write nothing";
    }
    EXPECT_NE(access(pid_path().c_str(), F_OK), 0);
}

} // namespace
