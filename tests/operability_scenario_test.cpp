// The agent as the service manager and the host see it: notifications, status and metrics files.
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <dirent.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <regex>
#include <sstream>
#include <thread>

#include "dg_scenario.h"

namespace
{

using namespace dg_scenario;

class Operability : public DgScenario
{
  protected:
    // A datagram socket in the home, as the service manager would offer it.
    void open_notify()
    {
        notify_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", notify_path.c_str());
        ASSERT_EQ(bind(notify_fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    }
    void TearDown() override
    {
        DgScenario::TearDown();
        if (notify_fd >= 0)
            close(notify_fd);
    }
    // Collects the notifications that arrive within `span`.
    std::vector<std::string> notes(std::chrono::milliseconds span)
    {
        std::vector<std::string> got;
        const auto end = std::chrono::steady_clock::now() + span;
        while (std::chrono::steady_clock::now() < end) {
            timeval tv{0, 100000};
            setsockopt(notify_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
            char buf[512];
            ssize_t n = recv(notify_fd, buf, sizeof(buf), 0);
            if (n > 0)
                got.emplace_back(buf, static_cast<size_t>(n));
        }
        return got;
    }
    static size_t count(const std::vector<std::string> &got, const std::string &prefix)
    {
        size_t n = 0;
        for (const auto &g : got)
            n += g.starts_with(prefix) ? 1 : 0;
        return n;
    }
    // The agent's thread called `name`, or 0.
    pid_t thread_named(const std::string &name)
    {
        const std::string task = "/proc/" + std::to_string(agent) + "/task";
        std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(task.c_str()), closedir);
        for (dirent *e; dir && (e = readdir(dir.get())) != nullptr;)
            if (e->d_name[0] != '.' && read_file(task + "/" + e->d_name + "/comm") == name + "\n")
                return atoi(e->d_name);
        return 0;
    }

    std::string notify_path = home + "/notify.sock";
    int notify_fd = -1;
};

TEST_F(Operability, NotifiesReadinessStatusWatchdogAndStop)
{
    open_notify();
    start_sim();
    sim->stop(); // the port stays known: the agent first finds no DG there
    start_agent({"NOTIFY_SOCKET=" + notify_path, "WATCHDOG_USEC=3000000"});
    auto first = notes(2500ms);
    EXPECT_EQ(count(first, "READY=1"), 1u);
    EXPECT_EQ(count(first, "STATUS=connecting to 127.0.0.1:" + std::to_string(port) + ": connect failed"), 1u);
    start_sim();
    ASSERT_TRUE(sim->wait_for(recv_of(10043), 15s));
    auto connected = notes(4000ms);
    EXPECT_EQ(count(connected, "STATUS=connected to 127.0.0.1:" + std::to_string(port) + " as " + k_manager_id), 1u);
    EXPECT_GE(count(connected, "WATCHDOG=1"), 3u) << "about one a second";

    // A command thread that stops showing life (stopped by a tracer) ends the watchdog.
    pid_t command_thread = thread_named("quil-command");
    ASSERT_GT(command_thread, 0);
    if (ptrace(PTRACE_SEIZE, command_thread, nullptr, nullptr) != 0)
        GTEST_SKIP() << "ptrace is not allowed here: " << strerror(errno);
    ASSERT_EQ(ptrace(PTRACE_INTERRUPT, command_thread, nullptr, nullptr), 0);
    notes(3500ms); // the last stamp ages past the 3 s period
    EXPECT_EQ(count(notes(2500ms), "WATCHDOG=1"), 0u);
    ASSERT_EQ(ptrace(PTRACE_DETACH, command_thread, nullptr, nullptr), 0);
    EXPECT_GE(count(notes(2500ms), "WATCHDOG=1"), 1u) << "fed again once the thread runs";

    kill(agent, SIGTERM);
    EXPECT_EQ(count(notes(3000ms), "STOPPING=1"), 1u);
    checked("READY, connecting/connected STATUS, WATCHDOG only while the threads live, STOPPING");
}

std::string read_file_of_command(const std::string &command)
{
    std::string out;
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    char buf[256];
    for (size_t n; pipe && (n = fread(buf, 1, sizeof(buf), pipe.get())) > 0;)
        out.append(buf, n);
    return out;
}

// One Prometheus text-format line: a comment, or a sample with optional labels.
bool metric_line_ok(const std::string &line)
{
    static const std::regex comment(R"(# (HELP|TYPE) [a-zA-Z_:][a-zA-Z0-9_:]* .*)");
    static const std::regex sample(R"([a-zA-Z_:][a-zA-Z0-9_:]*)"
                                   R"((\{[a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\.)*")"
                                   R"((,[a-zA-Z_][a-zA-Z0-9_]*="([^"\\\n]|\\.)*")*\})? -?[0-9][0-9.e+-]*)");
    return std::regex_match(line, comment) || std::regex_match(line, sample);
}

TEST_F(Operability, StatusAndMetricsFilesFollowTheAgent)
{
    const std::string status = manager + "/data/status.json", metrics = home + "/metrics.prom";
    sample_agent("sleep 8; echo vkSuccess"); // long enough to be seen running
    start_sim();
    start_agent({"MGR_METRICS_TEXTFILE=" + metrics});
    // A reader that parses the file whenever it looks: never half a file.
    std::atomic<bool> done{false};
    std::atomic<int> reads{0}, torn{0};
    std::thread reader([&] {
        while (!done) {
            std::string text = read_file(status);
            if (!text.empty()) {
                cJSON *tree = cJSON_Parse(text.c_str());
                reads++;
                torn += tree == nullptr ? 1 : 0;
                cJSON_Delete(tree);
            }
            std::this_thread::sleep_for(2ms);
        }
    });
    auto has = [&](const std::string &what, std::chrono::seconds within) {
        return eventually([&] { return contains(read_file(status), what); }, within);
    };
    EXPECT_TRUE(has(R"("state":"connected")", 5s));
    EXPECT_TRUE(has(R"("target_agents":1)", 35s));
    ASSERT_TRUE(sim->command("restart" + request_args("r1")));
    EXPECT_TRUE(has(R"({"execution_id":"r1","type":"agent_restart","agent_id":")" + k_agent_id +
                        R"(","phase":"running")",
                    15s)) << "taken at the command thread's next 5 s step";

    std::string patch = home + "/p.bin", bytes;
    for (int i = 0; i < 3000; i++)
        bytes += static_cast<char>(i * 7 + i / 13);
    write_file(patch, bytes);
    ASSERT_TRUE(sim->command("patch_start" + request_args("t1") + " file=" + patch + " chunk=1000 chunks=1"));
    EXPECT_TRUE(has(R"({"execution_id":"t1","file":"p.bin","bytes_received":1000,"bytes_total":3000})", 5s));
    for (int index : {2, 3})
        ASSERT_TRUE(sim->command("chunk agent=" + k_agent_id + " exec=t1 count=3 name=p.bin file_size=3000 index=" +
                                 std::to_string(index) + " file=" + patch + " offset=" +
                                 std::to_string(index * 1000 - 1000) + " length=1000"));
    // The digest is logged and listed as sha256sum gives it.
    std::string sum = read_file_of_command("sha256sum " + patch).substr(0, 64);
    EXPECT_TRUE(log_has("sha256[" + sum + "] size[3000] execution_id[t1]"));
    EXPECT_TRUE(has(R"("sha256":")" + sum + "\"", 5s));

    sim->stop();
    EXPECT_TRUE(has(R"("state":"connecting")", 3s)) << "follows the connection within about 2 s";
    done = true;
    reader.join();
    EXPECT_GT(reads.load(), 100);
    EXPECT_EQ(torn.load(), 0);

    std::string text = read_file(metrics), line;
    EXPECT_TRUE(contains(text, "quil_manager_connected 0\n"));
    for (std::istringstream in(text); std::getline(in, line);)
        EXPECT_TRUE(metric_line_ok(line)) << line;
    if (system("command -v promtool >/dev/null 2>&1") == 0) {
        EXPECT_EQ(system(("promtool check metrics < " + metrics).c_str()), 0);
    }
    checked("status.json always whole, follows connection, command, transfer, digest; metrics format");
}

} // namespace

#endif
