// Fault scenarios with the real agent and quil-dg-sim; each ends with the agent answering pings
// or stopping cleanly.
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include <fstream>

#include "dg_scenario.h"

namespace
{

using namespace dg_scenario;

// Under the sanitizers memory cannot be measured (shadow memory and quarantines swamp the
// figures) and every command costs many times more, so the flow runs shorter there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool k_memory_is_measurable = false;
constexpr int k_burst = 2000;
constexpr auto k_pause = 10s;
#else
constexpr bool k_memory_is_measurable = true;
constexpr int k_burst = 10000;
constexpr auto k_pause = 60s;
#endif

class DgFault : public DgScenario
{
  protected:
    // Starts the simulator and the agent (after `before` in its shell) and waits for the
    // handshake.
    void connect(const std::string &before = "")
    {
        start_sim();
        start_agent_after(before);
        ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log();
    }
    // A patch file of `size` bytes that runs as a script printing the success keyword.
    std::string patch_file(const std::string &name, size_t size)
    {
        std::string path = home + "/" + name, head = "#!/bin/sh\necho vkSuccess\nexit 0\n";
        write_file(path, head + std::string(size - head.size(), '#'));
        return path;
    }
};

// Hostile lengths (a DG announcing 2 GiB holds the connection until it closes it) and bodies,
// a ping flood and stray signals: the agent serves on. A SIGTERM amid a transfer and queued
// answers stops it cleanly (no send failure); a partial patch file goes at the stop, and one
// left by a crash at the next start.
TEST_F(DgFault, HostileBytesFloodsSignalsAndAStop)
{
    sample_agent();
    connect();
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("raw hex=f9f2f802040000007fffffff00000000000000000000000000"));
    ASSERT_TRUE(sim->command("close"));
    ASSERT_TRUE(sim->wait_for(sent_of(50036), 15s, from)) << log();
    EXPECT_TRUE(ping_answered());
    const char *attacks[] = {
        "send type=60001 hex=ffffffffffffffffff", // bodies that do not decode
        "send type=60004 hex=0aff",
        "send type=50036 hex=0a05ab",
        "send type=50020 hex=08",
    };
    for (const char *attack : attacks) {
        ASSERT_TRUE(sim->command(attack)) << attack;
        EXPECT_TRUE(eventually([&] { return ping_answered(); }, 20s)) << attack << "\n" << log();
    }
    from = sim->mark();
    for (int i = 0; i < 2000; i++)
        ASSERT_TRUE(sim->send("ping"));
    EXPECT_TRUE(eventually(
        [&] {
            auto events = sim->events();
            return std::count_if(events.begin() + static_cast<long>(from), events.end(),
                                 [](const sim_event &e) { return e.is("recv", 40000); }) >= 2000;
        },
        60s))
        << "every ping of the flood is answered";
    for (int sig : {SIGUSR1, SIGUSR2})
        ASSERT_EQ(kill(agent, sig), 0);
    EXPECT_TRUE(log_has("[INFO][handle_pending_signals] SIGUSR1 sig caught; ignored.\n"));
    EXPECT_TRUE(log_has("[INFO][handle_pending_signals] SIGUSR2 sig caught; ignored.\n"));
    EXPECT_TRUE(ping_answered());

    ASSERT_TRUE(sim->command("patch_start" + request_args("c1") + " file=" + patch_file("c.bin", 4000) +
                             " chunk=1000 chunks=2"));
    const std::string part = manager + "/tmp/c.bin.part";
    ASSERT_TRUE(eventually([&] { return read_file(part).size() == 2000; }, 10s)) << log();
    const size_t send_failures = log_count("Packet send failed");
    for (int i = 0; i < 3000; i++) // timezone answers go through the send queue
        ASSERT_TRUE(sim->send("timezone"));
    ASSERT_TRUE(sim->wait_for(recv_of(40001)));
    ASSERT_EQ(kill(agent, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(eventually([&] { return waitpid(agent, &status, WNOHANG) == agent; }, 15s));
    agent = 0;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(contains(log(), "[KTR-OSM-00040050] SIGTERM sig caught.\n"));
    EXPECT_EQ(log_count("Packet send failed"), send_failures) << log();
    EXPECT_NE(access(part.c_str(), F_OK), 0) << "removed at the stop";
    write_file(part, "left by a crash");
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036), 15s, sim->mark())) << log();
    EXPECT_NE(access(part.c_str(), F_OK), 0) << "removed at the start";
    checked("hostile lengths and bodies, 2000 pings, SIGUSR1/2 survived; clean stop under load");
}

// 10,000 commands (the ring overwrites, the queue stays bounded) and then a DG that stops
// reading while commands keep coming: resident memory stays within 2 MiB.
TEST_F(DgFault, CommandBurstAndANonReadingDgKeepMemoryFlat)
{
    connect();
    // Scripts under a missing run path fail at once, so the command thread keeps up.
    auto burst = [&](const std::string &tag, int count) {
        for (int i = 0; i < count; i++)
            ASSERT_TRUE(sim->send("restart agent=" + k_agent_id + " exec=" + tag + std::to_string(i) +
                                  " run_path=/nonexistent timeout=1000"));
    };
    burst("warm", 300);
    ASSERT_TRUE(result("warm299", 1, 60s)) << log();
    std::this_thread::sleep_for(6s); // one command pass over the full ring
    long before = rss_kib();
    burst("b", k_burst);
    ASSERT_TRUE(result("b" + std::to_string(k_burst - 1), 1, 300s)) << log();
    std::this_thread::sleep_for(6s);
    long after_burst = rss_kib();

    ASSERT_TRUE(sim->command("pause_reading"));
    burst("p", 3000);
    std::this_thread::sleep_for(k_pause);
    long after_pause = rss_kib();
    ASSERT_TRUE(sim->command("resume_reading"));
    EXPECT_TRUE(eventually([&] { return ping_answered(); }, 60s)) << log();
    printf("[scenario] RSS KiB: before %ld, after %d commands %ld, after %lld s of a non-reading DG %ld\n", before,
           k_burst, after_burst, static_cast<long long>(k_pause.count()), after_pause);
    if (k_memory_is_measurable) {
        EXPECT_LE(after_burst - before, 2048);
        EXPECT_LE(after_pause - before, 2048);
    }
    EXPECT_GT(log_count("[send_res_command]"), 0u);
    checked("10000-command burst and a non-reading DG: memory flat, agent serves afterwards");
}

// A connection dropped after two of four chunks: the rest arrives after the reconnect and the
// patch runs. A file-size limit stands for a full disk: that transfer fails, the next succeeds.
TEST_F(DgFault, TransferOverALostConnectionAndAFullDisk)
{
    sample_agent();
    connect("ulimit -f 2048"); // 1 MiB in /bin/sh's 512-byte blocks, 2 MiB in bash's
    std::string patch = patch_file("m.bin", 4000);
    ASSERT_TRUE(sim->command("patch_start" + request_args("m1") + " file=" + patch + " chunk=1000 chunks=2"));
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("close"));
    ASSERT_TRUE(sim->wait_for(sent_of(50036), 15s, from)) << log();
    for (int index : {3, 4})
        ASSERT_TRUE(sim->command("chunk agent=" + k_agent_id + " exec=m1 count=4 name=m.bin file_size=4000 index=" +
                                 std::to_string(index) + " file=" + patch + " offset=" +
                                 std::to_string((index - 1) * 1000) + " length=1000"));
    auto done = result("m1", 2, 20s);
    ASSERT_TRUE(done) << log();
    EXPECT_EQ(done->num("body.result"), 1) << done->line();
    EXPECT_EQ(read_file(manager + "/tmp/m.bin"), read_file(patch));

    from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("f1") + " file=" + patch_file("big.bin", 4 << 20) +
                             " chunk=65536", 60s));
    auto failed = sim->wait_for(
        [](const sim_event &e) { return e.is("recv", 60002) && e.str("body.execution_id") == "f1" && e.num("body.result") == 2; },
        20s, from);
    ASSERT_TRUE(failed) << log();
    EXPECT_TRUE(contains(failed->str("body.result_message"), "write size failed")) << failed->line();
    EXPECT_TRUE(ping_answered());
    ASSERT_TRUE(sim->command("patch_start" + request_args("f2") + " file=" + patch_file("small.bin", 1000)));
    done = result("f2", 2, 20s);
    EXPECT_TRUE(done && done->num("body.result") == 1) << log();
    checked("a transfer survives a reconnect; a full disk fails one with the size text; the next one runs");
}

// A patch is refused before anything is stopped when tmp is missing or a link out of the home,
// or when its name is one the agent writes in tmp itself; a command with 1,000 options is
// decoded whole and runs.
TEST_F(DgFault, RefusedPatchesStopNothingAndManyOptionsRun)
{
    sample_agent();
    connect();
    const std::string outside = home + "/outside", tmp = manager + "/tmp";
    ASSERT_EQ(mkdir(outside.c_str(), 0700), 0);
    struct {
        const char *name, *tmp_is; // tmp: "dir", "missing" or "link"
        const char *text;
    } const cases[] = {
        {"d.bin", "missing", "tmp directory of the manager home is not usable"},
        {"d.bin", "link", "tmp directory of the manager home is not usable"},
        {"1_install_info", "dir", "patch file name is reserved by the agent (1_install_info)"},
        {"x.part", "dir", "patch file name is reserved by the agent (x.part)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + " with tmp " + c.tmp_is);
        rmdir(tmp.c_str());
        unlink(tmp.c_str());
        const std::string tmp_is = c.tmp_is;
        ASSERT_EQ(tmp_is == "dir" ? mkdir(tmp.c_str(), 0700) : tmp_is == "link" ? symlink(outside.c_str(), tmp.c_str()) : 0, 0);
        size_t from = sim->mark();
        ASSERT_TRUE(sim->command("patch_start" + request_args(std::string("n-") + c.name) + " file=" +
                                 patch_file("d.bin", 100) + " name=" + c.name));
        auto refused = sim->wait_for(recv_of(60002), 10s, from);
        EXPECT_TRUE(refused && refused->num("body.result") == 2 &&
                    contains(refused->str("body.result_message"), std::string("[agent manager] ") + c.text))
            << describe(refused);
    }
    EXPECT_EQ(read_file(outside + "/d.bin"), "");
    std::string options;
    for (int i = 0; i < 1000; i++)
        options += " opt=KEY" + std::to_string(i) + "=" + std::string(40, 'v');
    ASSERT_TRUE(sim->command("restart" + request_args("o1") + options));
    auto done = result("o1", 2, 30s);
    EXPECT_EQ(done ? done->num("body.result") : 0, 1) << describe(done) << log();
    EXPECT_EQ(read_file(home + "/order"), "stop\nstart\n") << "the refused patches stopped nothing";
    checked("patches refused for a missing or linked tmp and reserved names stop nothing; 1,000 options run");
}

// True while pid runs (a zombie has ended).
bool running(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return pid > 0 && paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

// At a time-out the script ends after its grace (SIGKILL if it ignores SIGTERM), with the child
// it waits for; a daemon an ended script left holding the output pipe lives on (TIMEOUT).
TEST_F(DgFault, TimeOutsEndTheScriptButNotWhatItLeftRunning)
{
    const std::string daemon_pid = home + "/daemon.pid", child_pid = home + "/child.pid";
    sample_agent("echo stopping; echo vkSuccess", "sleep 301 & echo $! > " + daemon_pid + "; echo vkSuccess");
    connect();
    ASSERT_TRUE(sim->command("restart" + request_args("d1", 1500)));
    auto held = result("d1", 2, 30s);
    EXPECT_EQ(held ? held->num("body.result") : 0, 3) << describe(held);
    pid_t daemon = atoi(read_file(daemon_pid).c_str());
    EXPECT_TRUE(running(daemon)) << "the daemon start.sh left behind survives the time-out";
    EXPECT_EQ(log_count("[run_script] SIGTERM failed, send SIGKILL"), 0u);
    if (daemon > 0)
        kill(daemon, SIGKILL);

    sample_agent("sleep 302 & echo $! > " + child_pid + "; wait");
    ASSERT_TRUE(sim->command("stop" + request_args("w1", 1000)));
    auto waited = result("w1", 2, 30s);
    EXPECT_EQ(waited ? waited->num("body.result") : 0, 3) << describe(waited);
    pid_t child = atoi(read_file(child_pid).c_str());
    EXPECT_TRUE(child > 0 && eventually([&] { return !running(child); }, 5s)) << "the child the script waits for";

    sample_agent("trap '' TERM; echo ignoring; sleep 303");
    ASSERT_TRUE(sim->command("stop" + request_args("i1", 1000)));
    auto ignored = result("i1", 2, 30s);
    EXPECT_EQ(ignored ? ignored->num("body.result") : 0, 3) << describe(ignored);
    EXPECT_EQ(log_count("[run_script] SIGTERM failed, send SIGKILL"), 1u);
    EXPECT_TRUE(eventually([] { return system("pgrep -f '[s]leep 30[23]' >/dev/null") != 0; }, 10s))
        << "no process of a running script outlives its time-out";
    EXPECT_TRUE(ping_answered());
    checked("a daemon left by start.sh survives TIMEOUT; a waited-for child and a TERM-ignoring script end");
}

// A patch_stop that lands after stop.sh has finished its output and before the patch program
// starts runs nothing more; a repeated chunk for the finished transfer is answered as out of
// order and changes neither the file nor the queued command.
TEST_F(DgFault, StopBetweenRunsAndAChunkAfterTheTransfer)
{
    // The prefix ends each run's output at once while its script still runs (stop.sh sleeps),
    // which leaves the time between two runs wide enough for a patch_stop to land in.
    sample_agent("sleep 4");
    write_file(manager + "/data/agent_config.json",
               R"({"common_option": [{"custom_prefix": "echo vkSuccess; exec >/dev/null 2>&1;"}],
                   "sample": [{"path": ")" + run_path + R"(/agent_id", "root_check": 0}]})");
    connect();
    ASSERT_TRUE(sim->wait_for(recv_of(60003), 35s)) << "the prefix is loaded with the agent list";
    std::string patch = home + "/p2.bin";
    write_file(patch, "#!/bin/sh\necho setup >> " + home + "/order; echo vkSuccess\n");
    ASSERT_TRUE(sim->command("patch_start" + request_args("p2") + " file=" + patch));
    auto written = sim->wait_for(
        [](const sim_event &e) { return e.is("recv", 60002) && contains(e.str("body.result_message"), "write success"); },
        10s);
    ASSERT_TRUE(written) << log();
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("chunk agent=" + k_agent_id + " exec=p2 index=1 count=1 name=p2.bin data=00"));
    auto late = sim->wait_for(recv_of(60002), 5s, from);
    EXPECT_EQ(describe(late), "2 [agent manager] chunk oreder is incoreect (Expected value 2 / received value 1)");
    EXPECT_EQ(read_file(manager + "/tmp/p2.bin"), read_file(patch));

    ASSERT_TRUE(log_has("[run_script] read end.", 1, 15s)) << log();
    ASSERT_TRUE(sim->command("patch_stop" + request_args("p2")));
    auto done = result("p2", 2, 20s);
    ASSERT_TRUE(done) << log();
    EXPECT_EQ(done->num("body.result"), 1) << done->line();
    EXPECT_TRUE(contains(done->str("body.result_message"), "command stop success")) << done->line();
    EXPECT_EQ(read_file(home + "/order"), "stop\n") << "no patch program, no start.sh";
    EXPECT_EQ(log_count("[run_script] command stop case before the run"), 1u) << log();
    EXPECT_EQ(log_count("[run_script] start command["), 1u) << "only stop.sh was started";
    EXPECT_EQ(read_file(manager + "/tmp/p2.bin"), read_file(patch));
    checked("a stop between stop.sh and the patch runs nothing more; a late chunk changes nothing");
}

} // namespace

#endif // QUIL_DG_SIM_BIN
