// Fault scenarios with the real agent and quil-dg-sim: a connection lost in the middle of a
// transfer, hostile bytes and floods, a burst of commands and a DG that stops reading (memory
// stays flat), a full disk, a missing tmp directory, scripts that hold the output pipe or
// ignore SIGTERM, and stray signals. Each ends with the agent still answering pings (the
// last one then with a clean stop).
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

// The DG drops the connection after two of four chunks; the transfer state survives, and once
// the agent is back the DG sends the rest and the patch completes and runs.
TEST_F(DgFault, TransferContinuesAfterTheConnectionWasLost)
{
    sample_agent();
    connect();
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
    EXPECT_TRUE(ping_answered());
    checked("a transfer cut by a lost connection completes after the reconnect and runs");
}

// Oversized lengths, undecodable bodies of every handled type, and a flood of pings: the
// agent drops the connection where the framing is broken, answers what it can, and serves on.
// The receive loop takes any announced length and reads the body until it is complete, so a
// DG that announces 2 GiB holds the connection until it closes it.
TEST_F(DgFault, HostileBytesAndFloods)
{
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
    EXPECT_EQ(waitpid(agent, nullptr, WNOHANG), 0);
    checked("oversized length, undecodable 60001/60004/50036/50020 bodies, 2000 pings: the agent serves on");
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

// A file-size limit stands for a full disk: the transfer fails with the size text, and the
// agent goes on (a later small patch arrives).
TEST_F(DgFault, FullDiskFailsTheTransferOnly)
{
    sample_agent();
    connect("ulimit -f 2048"); // 1 MiB in /bin/sh's 512-byte blocks, 2 MiB in bash's
    std::string big = patch_file("big.bin", 4 << 20);
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("f1") + " file=" + big + " chunk=65536", 60s));
    auto failed = sim->wait_for(
        [](const sim_event &e) { return e.is("recv", 60002) && e.str("body.execution_id") == "f1" && e.num("body.result") == 2; },
        20s, from);
    ASSERT_TRUE(failed) << log();
    EXPECT_TRUE(contains(failed->str("body.result_message"), "write size failed")) << failed->line();
    EXPECT_TRUE(ping_answered());
    std::string small = patch_file("small.bin", 1000);
    ASSERT_TRUE(sim->command("patch_start" + request_args("f2") + " file=" + small));
    auto done = result("f2", 2, 20s);
    EXPECT_TRUE(done && done->num("body.result") == 1) << log();
    checked("a full disk fails the transfer with the size text; the next patch succeeds");
}

// The tmp directory is gone: the patch is refused, nothing else breaks.
TEST_F(DgFault, MissingTmpDirectoryRefusesThePatch)
{
    sample_agent();
    connect();
    ASSERT_EQ(rmdir((manager + "/tmp").c_str()), 0);
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("d1") + " file=" + patch_file("d.bin", 100)));
    auto refused = sim->wait_for(
        [](const sim_event &e) { return e.is("recv", 60002) && e.str("body.execution_id") == "d1" && e.num("body.result") == 2; },
        10s, from);
    EXPECT_TRUE(refused) << log();
    EXPECT_TRUE(ping_answered());
    checked("a missing tmp directory refuses the patch; the agent serves on");
}

// A stop.sh that leaves a daemon holding the output pipe, and one that ignores SIGTERM: both
// end at their time-out (the second after the SIGKILL grace), and neither leaves a process.
TEST_F(DgFault, ScriptsThatHoldThePipeOrIgnoreSigterm)
{
    sample_agent("(sleep 301 &); echo vkSuccess");
    connect();
    ASSERT_TRUE(sim->command("stop" + request_args("h1", 2000)));
    auto held = result("h1", 2, 30s);
    EXPECT_EQ(held ? held->num("body.result") : 0, 3) << describe(held);

    sample_agent("trap '' TERM; echo ignoring; sleep 301");
    ASSERT_TRUE(sim->command("stop" + request_args("i1", 1000)));
    auto ignored = result("i1", 2, 30s);
    EXPECT_EQ(ignored ? ignored->num("body.result") : 0, 3) << describe(ignored);
    EXPECT_TRUE(ping_answered());
    EXPECT_TRUE(eventually([] { return system("pgrep -f '[s]leep 301' >/dev/null") != 0; }, 10s))
        << "no script process outlives its time-out";
    checked("a daemon holding the pipe and a script ignoring SIGTERM end at the time-out; nothing survives");
}

// SIGUSR1 and SIGUSR2 are logged at INFO and ignored. A SIGTERM in the middle of a flood of
// queued answers then stops the agent cleanly: the batch the stop cuts off is no send failure.
TEST_F(DgFault, StraySignalsAreIgnoredAndAStopIsNoSendFailure)
{
    connect();
    for (int sig : {SIGUSR1, SIGUSR2})
        ASSERT_EQ(kill(agent, sig), 0);
    EXPECT_TRUE(log_has("[INFO][handle_pending_signals] SIGUSR1 sig caught; ignored.\n"));
    EXPECT_TRUE(log_has("[INFO][handle_pending_signals] SIGUSR2 sig caught; ignored.\n"));
    EXPECT_TRUE(ping_answered());

    for (int i = 0; i < 3000; i++) // timezone answers go through the send queue
        ASSERT_TRUE(sim->send("timezone"));
    ASSERT_TRUE(sim->wait_for(recv_of(40001)));
    ASSERT_EQ(kill(agent, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(eventually([&] { return waitpid(agent, &status, WNOHANG) == agent; }, 15s));
    agent = 0;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(contains(log(), "[KTR-OSM-00040050] SIGTERM sig caught.\n"));
    EXPECT_FALSE(contains(log(), "Packet send failed")) << log();
    checked("SIGUSR1/SIGUSR2 logged and ignored, pings answered; a stop under load logs no send failure");
}

} // namespace

#endif // QUIL_DG_SIM_BIN
