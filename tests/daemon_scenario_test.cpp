// Scenario tests of the real quil-manager-agent binary (QUIL_AGENT_BIN). Each test runs it in
// its own temporary installation home with MGR_QUIL_HOME and MGR_QUIL_MANAGER_HOME set, so
// tests may run in parallel; every wait polls with a generous time-out (a loaded machine and
// the sanitizer builds are slow), and every agent a test starts (the detached one and any
// agent recorded in the home's pid file included) is killed on the way out if still alive.
#include "version.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// Time-outs of the polls: far above what the agent needs, so only a real fault trips them.
constexpr auto k_start_timeout = 20000ms; // a started agent reaches the loop / a refused one ends
constexpr auto k_stop_timeout = 20000ms;  // the agent ends after a stop signal or pid-file removal

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + what.size()))
        n++;
    return n;
}

bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    auto end = clock_type::now() + timeout;
    while (!done()) {
        if (clock_type::now() > end)
            return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

// Exit status of our child, or -1 when it has not ended within the time-out.
int wait_exit(pid_t pid, std::chrono::milliseconds timeout)
{
    int status = 0;
    bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!ended)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// True while pid is a live (not zombie) process; works for processes that are not our
// children, like the detached daemon.
bool process_alive(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

std::string cmdline_of(pid_t pid)
{
    std::string text = read_file("/proc/" + std::to_string(pid) + "/cmdline");
    for (char &c : text)
        c = c == '\0' ? ' ' : c;
    return text;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);)
        lines.push_back(line);
    return lines;
}

// True when some log line is "[dd hh:mm:ss][<pid>][<label>]" followed by `message` (lines
// are compared without their "\n").
bool has_log_line(const std::string &text, pid_t pid, const std::string &label, const std::string &message)
{
    const std::string tail = "][" + std::to_string(pid) + "][" + label + "]" + message;
    for (const std::string &line : lines_of(text)) {
        if (line.size() < 12 + tail.size() || line.compare(12, tail.size(), tail) != 0)
            continue;
        const char *shape = "[00 00:00:00"; // digits where the zeros are
        bool ok = true;
        for (int i = 0; i < 12; i++)
            ok = ok &&
                 (shape[i] == '0' ? isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i]);
        if (ok)
            return true;
    }
    return false;
}

const std::string k_defaults = "MGR_INTERVAL_INFO_LOG=300\n"
                               "MGR_LOG_DIRECTORY=${MGR_QUIL_MANAGER_HOME}/log\n"
                               "MGR_LOG_FILENAME=quil-manager-agent.log\n"
                               "MGR_LOG_LEVEL=info\n"
                               "MGR_INTERVAL_GARBAGE_COLLECT=86400\n";

// A private installation home <tmp>/manager/data and the agents started in it.
class DaemonScenario : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/quil_scenario.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        home = tmpl;
        manager = home + "/manager";
        ASSERT_EQ(mkdir(manager.c_str(), 0700), 0);
        ASSERT_EQ(mkdir((manager + "/data").c_str(), 0700), 0);
        env = {"PATH=/usr/bin:/bin", "MGR_QUIL_HOME=" + home, "MGR_QUIL_MANAGER_HOME=" + manager};
        for (const char *pass : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char *v = getenv(pass))
                env.push_back(std::string(pass) + "=" + v);
        }
    }
    void TearDown() override
    {
        // A detached daemon the test did not get to note (it stopped early) is still in the
        // pid file.
        strangers.push_back(recorded_pid());
        for (pid_t pid : children) {
            if (waitpid(pid, nullptr, WNOHANG) == 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
        for (pid_t pid : strangers) {
            if (pid > 0 && process_alive(pid) &&
                cmdline_of(pid).find("quil-manager-agent") != std::string::npos)
                kill(pid, SIGKILL);
        }
        std::string cmd = "rm -rf '" + home + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    // Starts the agent with `args`; standard output and error go to <home>/<tag>.out/.err.
    pid_t start(const std::string &tag, std::vector<std::string> args,
                const std::vector<std::string> &environment)
    {
        args.insert(args.begin(), QUIL_AGENT_BIN);
        std::vector<char *> argv, envp;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> env_copy = environment;
        for (auto &e : env_copy)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, (home + "/" + tag + ".out").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, (home + "/" + tag + ".err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        int ret = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(ret, 0) << strerror(ret);
        if (ret == 0)
            children.push_back(pid);
        return ret == 0 ? pid : -1;
    }
    pid_t start(const std::string &tag, std::vector<std::string> args = {}) { return start(tag, args, env); }

    // A live process that is not an agent ("sleep 60", output to /dev/null), reaped on the way out.
    pid_t start_sleeper()
    {
        std::string a0 = "/bin/sleep", a1 = "60";
        char *argv[] = {a0.data(), a1.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd < 3; fd++)
            posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
        pid_t pid = -1;
        int ret = posix_spawn(&pid, argv[0], &actions, nullptr, argv, nullptr);
        posix_spawn_file_actions_destroy(&actions);
        if (ret != 0)
            return -1;
        children.push_back(pid);
        return pid;
    }

    std::string out(const std::string &tag) { return read_file(home + "/" + tag + ".out"); }
    std::string err(const std::string &tag) { return read_file(home + "/" + tag + ".err"); }
    std::string log() { return read_file(manager + "/log/quil-manager-agent.log"); }
    std::string pid_path() { return manager + "/data/manager_agent_pid"; }
    pid_t recorded_pid() { return static_cast<pid_t>(atoi(read_file(pid_path()).c_str())); }
    bool log_has(const std::string &text, std::chrono::milliseconds timeout = k_start_timeout)
    {
        return wait_until([&] { return log().find(text) != std::string::npos; }, timeout);
    }
    std::vector<std::string> without(const std::string &prefix)
    {
        std::vector<std::string> e;
        for (auto &s : env)
            if (s.rfind(prefix, 0) != 0)
                e.push_back(s);
        return e;
    }

    std::string home;
    std::string manager;
    std::vector<std::string> env;
    std::vector<pid_t> children;  // our own children, reaped or killed on the way out
    std::vector<pid_t> strangers; // the detached daemon, killed if still running
};

TEST_F(DaemonScenario, FirstStartWritesDefaultsLogsAndStopsOnSigterm)
{
    pid_t agent = start("first", {"-x", "-d"}); // unknown arguments are ignored
    ASSERT_GT(agent, 0);
    ASSERT_TRUE(log_has("[check_os_info] Machine : ")) << log() << out("first");

    // Start-up in its order: standard output before logging exists, then the log.
    std::string config = manager + "/data/config";
    const std::string stdout_start = "debug mode on\nenv MGR_QUIL_HOME(" + std::to_string(home.size()) +
                                     ")[" + home + "]\nenv MGR_RECEIVER_ADDR(256)[]\n[main] (" + config +
                                     ") file already exists.\n";
    EXPECT_EQ(out("first").substr(0, stdout_start.size()), stdout_start);
    const std::string steps[] = {"[print_configure] config MGR_INTERVAL_GARBAGE_COLLECT=[86400]\n",
                                 "[NOTI]g_vk_manager_home[" + manager + "]\n",
                                 "[check_double_execution] write pid. " + std::to_string(agent) + "\n",
                                 "[MAIN] start quil-manager-agent. <DEBUG> version ",
                                 "[MAIN] HOME: " + manager + "\n",
                                 "[KTR-OSM-00020020] receiver ip:port [MGR_RECEIVER_ADDR] is empty.\n",
                                 "[MAIN] initialize resources.\n",
                                 "[process_main] setting sudo flag (",
                                 "[check_os_info] OS Name : "};
    const std::string start_log = log();
    size_t at = 0;
    for (const std::string &step : steps) {
        at = start_log.find(step, at);
        ASSERT_NE(at, std::string::npos) << step << "\n" << start_log;
    }
    EXPECT_EQ(read_file(config), k_defaults);
    EXPECT_EQ(recorded_pid(), agent);
    // With -d the console debug lines go to standard output, not to the file.
    EXPECT_NE(out("first").find("[check_double_execution] open file. " + pid_path() + "(0)\n"),
              std::string::npos);
    EXPECT_EQ(log().find("[check_double_execution] open file."), std::string::npos);

    EXPECT_TRUE(has_log_line(log(), agent, "INFO", "[MAIN] start quil-manager-agent. <DEBUG> version "))
        << log();
    EXPECT_NE(log().find(std::string(get_manager_full_version_string()) + "\n"), std::string::npos);
    EXPECT_NE(log().find("[KTR-OSM-00020020] receiver ip:port [MGR_RECEIVER_ADDR] is empty.\n"),
              std::string::npos);

    ASSERT_EQ(kill(agent, SIGHUP), 0);
    ASSERT_TRUE(log_has("[KTR-OSM-00040040] SIGHUP sig caught\n"));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(waitpid(agent, nullptr, WNOHANG), 0) << "SIGHUP does not stop the agent";
    EXPECT_EQ(count_of(log(), "SIGHUP sig caught"), 1u);

    ASSERT_EQ(kill(agent, SIGTERM), 0);
    EXPECT_EQ(wait_exit(agent, k_stop_timeout), 0);
    std::string text = log();
    size_t caught = text.find("[KTR-OSM-00040050] SIGTERM sig caught.\n");
    ASSERT_NE(caught, std::string::npos) << text;
    // Only the main thread exists yet, so its breadcrumb is the only one.
    EXPECT_TRUE(has_log_line(text.substr(caught), agent, "ERRO", "[vk_debug_logging] main_thr [")) << text;
    size_t crumb = text.find("[vk_debug_logging] main_thr [", caught);
    ASSERT_NE(crumb, std::string::npos);
    EXPECT_NE(text.substr(crumb, text.find('\n', crumb) - crumb).find("main.cpp]["), std::string::npos);
    EXPECT_EQ(count_of(text, "[vk_debug_logging] "), 1u);
    EXPECT_NE(text.find("[exit_handler] terminated.\n"), std::string::npos);
    std::string stdout_text = out("first");
    ASSERT_GE(stdout_text.size(), 27u);
    EXPECT_EQ(stdout_text.substr(stdout_text.size() - 27), "[exit_handler] terminated.\n");
}

// Faults act at once in the handler: their line, the breadcrumbs, and exit status 0 through
// exit_handler. Each agent starts over the stale pid file of the one before.
TEST_F(DaemonScenario, FaultSignalsLogDumpAndExitZero)
{
    const std::pair<int, std::string> faults[] = {
        {SIGSEGV, "SIGSEGV"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"}};
    // The fault path exits from the handler, so exit_handler frees the logging library in
    // signal context; a thread-sanitized agent would report that and end with its own status.
    std::vector<std::string> e = without("TSAN_OPTIONS=");
    const char *tsan = getenv("TSAN_OPTIONS");
    e.push_back(std::string("TSAN_OPTIONS=") + (tsan != nullptr ? tsan : "") + ":report_signal_unsafe=0");
    size_t started = 0;
    for (const auto &[signo, name] : faults) {
        pid_t agent = start(name, {}, e);
        ASSERT_GT(agent, 0);
        started++;
        ASSERT_TRUE(wait_until([&] { return count_of(log(), "[MAIN] initialize resources.\n") == started; },
                               k_start_timeout))
            << log();
        ASSERT_EQ(kill(agent, signo), 0);
        EXPECT_EQ(wait_exit(agent, k_stop_timeout), 0) << name;
        std::string text = log();
        EXPECT_TRUE(has_log_line(text, agent, "ERRO", "[KTR-OSM-00040050] " + name + " sig caught.")) << text;
        EXPECT_TRUE(has_log_line(text, agent, "ERRO", "[vk_debug_logging] main_thr [")) << text;
        EXPECT_EQ(count_of(text, "[vk_debug_logging] "), started);
        EXPECT_NE(out(name).find("[exit_handler] terminated.\n"), std::string::npos) << name;
    }
}

TEST_F(DaemonScenario, SecondInstanceRefusedAndPidFileRemovalStops)
{
    // An existing config (no first-start message), a pid file naming a live process that
    // is not an agent (no block), a quoted home and a receiver address without a colon.
    std::ofstream(manager + "/data/config") << k_defaults;
    pid_t other = start_sleeper();
    ASSERT_GT(other, 0);
    std::ofstream(pid_path()) << other;
    std::vector<std::string> e = without("MGR_QUIL_HOME=");
    e.push_back("MGR_QUIL_HOME=\"" + home + "\"");
    e.push_back("MGR_RECEIVER_ADDR=nocolon");

    pid_t first = start("a", {}, e);
    ASSERT_GT(first, 0);
    ASSERT_TRUE(log_has("[check_double_execution] write pid. " + std::to_string(first) + "\n")) << log();
    EXPECT_EQ(out("a").find("file already exists"), std::string::npos);
    EXPECT_EQ(recorded_pid(), first);
    ASSERT_TRUE(log_has("[MAIN] initialize resources.\n"));
    EXPECT_NE(log().find("[MAIN] HOME: " + manager + "\n"), std::string::npos);
    EXPECT_EQ(count_of(log(), "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR]\n"), 2u);
    EXPECT_EQ(count_of(log(), "[KTR-OSM-00020020] receiver ip:port [MGR_RECEIVER_ADDR] is empty.\n"), 1u);

    pid_t second = start("b", {}, e);
    ASSERT_GT(second, 0);
    EXPECT_EQ(wait_exit(second, k_start_timeout), 0);
    EXPECT_NE(log().find("[KTR-OSM-00020080] Already exists. pid:" + std::to_string(first) +
                         ", ProcessName:quil-manager-agent\n"),
              std::string::npos)
        << log();
    EXPECT_EQ(recorded_pid(), first);
    EXPECT_EQ(waitpid(first, nullptr, WNOHANG), 0) << "the running agent is left alone";

    ASSERT_EQ(unlink(pid_path().c_str()), 0);
    // Seen at the next second divisible by 3; the exit follows some 6 s later.
    EXPECT_TRUE(log_has("[process_main] quil-manager-agent process stopped.\n"));
    EXPECT_EQ(wait_exit(first, k_stop_timeout), 0);
    std::string text = log();
    EXPECT_NE(text.find("[process_main] finished.\n"), std::string::npos);
    EXPECT_NE(text.find("[MAIN] quil-manager-agent terminated normally.\n"), std::string::npos);
    EXPECT_NE(out("a").find("[exit_handler] terminated.\n"), std::string::npos);
}

TEST_F(DaemonScenario, DetachedDaemonRunsUntilItsPidFileGoes)
{
    pid_t starter = start("d", {"-D"});
    ASSERT_GT(starter, 0);
    EXPECT_EQ(wait_exit(starter, k_start_timeout), 0);
    EXPECT_EQ(out("d").substr(0, 13), "daemonize on\n");

    pid_t daemon = 0;
    ASSERT_TRUE(wait_until(
        [&] {
            daemon = recorded_pid();
            return daemon > 0;
        },
        k_start_timeout))
        << log();
    strangers.push_back(daemon);
    EXPECT_NE(daemon, starter);
    EXPECT_TRUE(process_alive(daemon));
    EXPECT_NE(cmdline_of(daemon).find("quil-manager-agent -D"), std::string::npos);
    ASSERT_TRUE(log_has("[MAIN] initialize resources.\n"));
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(process_alive(daemon)) << "the daemon keeps running";

    ASSERT_EQ(unlink(pid_path().c_str()), 0);
    EXPECT_TRUE(wait_until([&] { return !process_alive(daemon); }, k_stop_timeout));
    EXPECT_NE(log().find("[process_main] quil-manager-agent process stopped.\n"), std::string::npos);
}

TEST_F(DaemonScenario, EnvironmentErrorsEndWithStatusZero)
{
    // Unset, empty, 256 characters.
    std::vector<std::string> values = {"", "MGR_QUIL_HOME=", "MGR_QUIL_HOME=" + std::string(256, 'h')};
    const int rets[] = {0, 0, -3};
    for (size_t i = 0; i < 3; i++) {
        std::string tag = "env" + std::to_string(i);
        std::vector<std::string> e = without("MGR_QUIL_HOME=");
        if (!values[i].empty())
            e.push_back(values[i]);
        pid_t pid = start(tag, {}, e);
        ASSERT_GT(pid, 0);
        EXPECT_EQ(wait_exit(pid, k_start_timeout), 0);
        EXPECT_EQ(err(tag),
                  "[KTR-OSM-00010010][ERROR] Failed to get environment variable MGR_QUIL_HOME.[ret:" +
                      std::to_string(rets[i]) + "]\n")
            << "case " << i;
        EXPECT_EQ(out(tag), "");
    }

    // The default log directory needs MGR_QUIL_MANAGER_HOME: start-up stops before the guard.
    pid_t pid = start("nolog", {}, without("MGR_QUIL_MANAGER_HOME="));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_exit(pid, k_start_timeout), 0);
    std::string stdout_text = out("nolog");
    EXPECT_NE(stdout_text.find("[init_vklog] convert_env_path() has failed. (ret: -3)\n"
                               "[main] init_vklog() has failed. (ret:-1)\n"),
              std::string::npos)
        << stdout_text;
    EXPECT_NE(access(pid_path().c_str(), F_OK), 0);
}

TEST_F(DaemonScenario, CommandLineOptionsThatEndAtOnce)
{
    pid_t pid = start("c", {"-y", "-c", "-v"});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_exit(pid, k_start_timeout), 0);
    utsname host{};
    ASSERT_EQ(uname(&host), 0);
    EXPECT_EQ(out("c"), std::string("[check_os_info] OS Name : ") + host.sysname +
                            "\n[check_os_info] Nodename : " + host.nodename + "\n[check_os_info] Release : " +
                            host.release + "\n[check_os_info] Version : " + host.version +
                            "\n[check_os_info] Machine : " + host.machine + "\n");

    // The usage line leaves out -c; the list names it.
    pid = start("h", {"-h", "-v"});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_exit(pid, k_start_timeout), 0);
    EXPECT_EQ(out("h"), std::string(get_manager_full_version_string()) + "\n[usage] " + QUIL_AGENT_BIN +
                            " [-D][-d][-v|-h]\n D : daemonize\n d : debug\n v : print version\n"
                            " c : print os information.\n h : print this message\n\n");

    pid = start("v", {"-v", "-D"});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(wait_exit(pid, k_start_timeout), 0);
    EXPECT_EQ(out("v"), std::string(get_manager_full_version_string()) + "\n");
    EXPECT_NE(access((manager + "/data/config").c_str(), F_OK), 0);
}

} // namespace
