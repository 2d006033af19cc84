// Shared by the scenario tests: a private home, quil-dg-sim and the real agent pointed at it,
// and a sample target agent; sanitizer reports on the agent's standard error fail a scenario.
#pragma once

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon_support.h"
#include "dg_sim_support.h"

namespace dg_scenario
{

using namespace daemon_support;
using namespace dg_sim_support;
using namespace std::chrono_literals;

inline const std::string k_manager_id = "3f2c1a9e-0b7d-4c55-9a61-5d2e8f0c1b47";
inline const std::string k_agent_id = "0b6f2d7e-5c1a-4e8f-9d3b-7a2c4e6f8a10";

class DgScenario : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path.empty());
        for (const char *sub : {"", "/data", "/tmp", "/log"})
            ASSERT_EQ(mkdir((manager + sub).c_str(), 0700), 0) << sub;
        write_file(manager + "/data/config", "MGR_LOG_LEVEL=debug\n");
        for (const char *pass : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"})
            if (const char *v = getenv(pass))
                env.push_back(std::string(pass) + "=" + v);
    }
    void TearDown() override
    {
        if (agent > 0) {
            kill(agent, SIGTERM);
            if (!eventually([&] { return waitpid(agent, nullptr, WNOHANG) == agent; }, 15s)) {
                kill(agent, SIGKILL);
                waitpid(agent, nullptr, 0);
            }
        }
        if (sim)
            sim->stop();
        // A sanitizer report of the agent ends up on its standard error.
        EXPECT_FALSE(contains(read_file(home + "/agent.err"), "Sanitizer")) << read_file(home + "/agent.err");
    }

    void start_sim(std::vector<std::string> options = {})
    {
        options.insert(options.end(), {"--manager-id", k_manager_id});
        if (port > 0)
            options.insert(options.end(), {"--listen", "127.0.0.1:" + std::to_string(port)});
        sim = std::make_unique<dg_sim>(options);
        ASSERT_TRUE(sim->started());
        port = sim->port();
    }
    // Starts the agent against the simulator's port; through /bin/sh when `via_shell`, which
    // first writes the shell's pid (the agent's, after exec) into the pid file.
    void start_agent(std::vector<std::string> extra_env = {}, bool via_shell = false)
    {
        start_agent_after(via_shell ? "echo $$ > " + manager + "/data/manager_agent_pid" : "", extra_env);
    }
    // Starts the agent through /bin/sh, which first runs `before` (a pid file, a ulimit).
    void start_agent_after(const std::string &before, std::vector<std::string> extra_env = {})
    {
        std::vector<std::string> e = env;
        e.push_back("MGR_RECEIVER_ADDR=127.0.0.1:" + std::to_string(port));
        e.insert(e.end(), extra_env.begin(), extra_env.end());
        std::vector<std::string> argv = {QUIL_AGENT_BIN};
        if (!before.empty())
            argv = {"/bin/sh", "-c", before + "; exec " + QUIL_AGENT_BIN};
        agent = spawn(argv, e, home + "/agent.out", home + "/agent.err");
        ASSERT_GT(agent, 0);
    }
    // Resident memory of the agent in KiB (0 when it cannot be read).
    long rss_kib()
    {
        std::string status = read_file("/proc/" + std::to_string(agent) + "/status");
        size_t at = status.find("VmRSS:");
        return at == std::string::npos ? 0 : atol(status.c_str() + at + 6);
    }
    // True when a ping now is answered within a few seconds.
    bool ping_answered()
    {
        size_t mark = sim->mark();
        return sim->command("ping") && sim->wait_for(recv_of(40000), 3s, mark).has_value();
    }
    std::string log() { return read_file(manager + "/log/quil-manager-agent.log"); }
    size_t log_count(const std::string &what)
    {
        std::string text = log();
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
            n++;
        return n;
    }
    bool log_has(const std::string &what, size_t times = 1, std::chrono::seconds timeout = 20s)
    {
        return eventually([&] { return log_count(what) >= times; }, timeout);
    }

    // A target agent under <home>/agent whose scripts append their name to <home>/order and
    // print the keywords; registered through agent_config.json.
    void sample_agent(const std::string &stop_body = "echo stopping; echo vkSuccess",
                      const std::string &start_body = "echo starting; echo vkSuccess")
    {
        mkdir(run_path.c_str(), 0755);
        script(run_path + "/stop.sh", "echo stop >> " + home + "/order; " + stop_body);
        script(run_path + "/start.sh", "echo start >> " + home + "/order; " + start_body);
        write_file(run_path + "/agent_id", k_agent_id + "\n");
        write_file(manager + "/data/agent_config.json",
                   R"({"sample": [{"path": ")" + run_path + R"(/agent_id", "root_check": 0}]})");
    }
    static void script(const std::string &path, const std::string &body)
    {
        write_file(path, "#!/bin/sh\n" + body + "\n");
        chmod(path.c_str(), 0755);
    }
    std::string request_args(const std::string &exec, int timeout_ms = 60000)
    {
        return " agent=" + k_agent_id + " exec=" + exec + " cmd=c-" + exec + " agent_type=7 run_path=" + run_path +
               " install_path=/opt/sample timeout=" + std::to_string(timeout_ms);
    }
    // The 60002 result of execution `exec` in `phase` (1 in progress, 2 done), looking at events
    // from `from` on.
    std::optional<sim_event> result(const std::string &exec, int phase, std::chrono::milliseconds timeout = 30s,
                                    size_t from = 0)
    {
        return sim->wait_for(
            [&](const sim_event &e) {
                return e.is("recv", 60002) && e.str("body.execution_id") == exec && e.num("body.phase_type") == phase;
            },
            timeout, from);
    }
    // What a scenario verified, printed with the test's output.
    static void checked(const std::string &what) { printf("[scenario] checked: %s\n", what.c_str()); }
    static std::string describe(const std::optional<sim_event> &e)
    {
        if (!e)
            return "(none)";
        return std::to_string(e->num("body.result")) + " " + e->str("body.result_message");
    }

    temp_dir dir{"dg_scenario"};
    std::string home = dir.path;
    std::string manager = home + "/manager";
    std::string run_path = home + "/agent";
    std::vector<std::string> env = {"PATH=/usr/bin:/bin", "MGR_QUIL_HOME=" + home, "MGR_QUIL_MANAGER_HOME=" + manager};
    std::unique_ptr<dg_sim> sim;
    int port = 0;
    pid_t agent = 0;
};

} // namespace dg_scenario
