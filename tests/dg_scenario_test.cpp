// The real agent in front of quil-dg-sim over loopback. The simulator decodes with libprotobuf,
// so every scenario is also a wire-compatibility check.
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "dg_scenario.h"

namespace
{

using namespace dg_scenario;

// The agent started by a shell that wrote its pid first (a pid file holding the agent's own
// pid) identifies the host, stores the assigned id, runs one round of ten time-sync exchanges
// whose trimmed mean it logs, answers a ping and a timezone request, only logs an unknown
// type, and after a dropped connection comes back with the stored id.
TEST_F(DgScenario, HandshakeTimeSyncPingTimezoneAndReconnectWithTheStoredId)
{
    const std::vector<int> skews = {50, -30, 1000, 7, -5000, 20, 11, 300, -2, 90};
    std::string skew_list;
    for (int s : skews)
        skew_list += (skew_list.empty() ? "" : ",") + std::to_string(s);
    start_sim({"--skew", skew_list});
    start_agent({"TZ=Asia/Seoul"}, true);

    auto hello = sim->wait_for(recv_of(10043));
    ASSERT_TRUE(hello) << log();
    EXPECT_EQ(hello->num("header.packet_type"), 4);
    EXPECT_EQ(hello->num("header.body_kind"), 2);
    EXPECT_EQ(hello->num("header.protocol_stamp"), 19121701);
    utsname host{};
    ASSERT_EQ(uname(&host), 0);
    EXPECT_EQ(hello->str("body.host_name"), host.nodename);
    EXPECT_EQ(hello->str("body.os_version"), host.release);
    EXPECT_EQ(hello->str("body.agent_type_name"), "quil-manager-agent");
    EXPECT_EQ(hello->num("body.protocol_version"), 20241111);
    EXPECT_EQ(hello->size("body.custom_infos"), 0) << hello->line();
    bool v4 = false, v6 = false, mac = false;
    for (int i = 0; i < hello->size("body.ip_infos"); i++) {
        std::string at = "body.ip_infos." + std::to_string(i);
        v4 |= hello->num(at + ".ip_version") == 4 && hello->str(at + ".ip_address") == "7f000001";
        v6 |= hello->num(at + ".ip_version") == 6 && hello->str(at + ".ip_address") == std::string(30, '0') + "01";
    }
    for (int i = 0; i < hello->size("body.mac_infos"); i++)
        mac |= hello->str("body.mac_infos." + std::to_string(i) + ".mac_address") == "000000000000";
    EXPECT_TRUE(v4 && mac) << hello->line();
    if (access("/proc/net/if_inet6", F_OK) == 0) {
        EXPECT_TRUE(v6) << hello->line();
    }

    EXPECT_TRUE(eventually([&] { return read_file(manager + "/data/manager_id") == k_manager_id + "\n"; }));
    ASSERT_TRUE(log_has("[process_res_timesync] timesync diff:")) << log();
    std::vector<long long> diffs;
    for (const sim_event &e : sim->events())
        if (e.is("sent", 50020))
            diffs.push_back(e.num("diff", 0));
    ASSERT_EQ(diffs.size(), 10u) << "one round of ten exchanges";
    std::sort(diffs.begin(), diffs.end());
    long long sum = 0;
    for (size_t i = 2; i < 8; i++)
        sum += diffs[i];
    EXPECT_EQ(log_count("[process_res_timesync] timesync diff:" + std::to_string(sum / 6) + "\n"), 1u) << log();

    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("ping"));
    auto pong = sim->wait_for(recv_of(40000), 10s, from);
    EXPECT_EQ(pong ? pong->num("header.length") : 0, 11) << "a 23-byte packet";
    ASSERT_TRUE(sim->command("timezone"));
    auto zone = sim->wait_for(recv_of(40001), 10s, from);
    EXPECT_EQ(zone ? zone->num("body.offset") : 0, 32400000);
    ASSERT_TRUE(sim->command("send type=12345 hex=0a01ff"));
    EXPECT_TRUE(log_has("[KTR-OSM-00060080] Packet processing failed.(12345)"));
    EXPECT_TRUE(ping_answered()) << "an unknown type keeps the connection";

    size_t before = sim->mark();
    auto closed_at = std::chrono::steady_clock::now();
    ASSERT_TRUE(sim->command("close"));
    auto again = sim->wait_for(recv_of(10043), 15s, before);
    ASSERT_TRUE(again) << log();
    EXPECT_LT(std::chrono::steady_clock::now() - closed_at, 8s) << "reconnects after its 5 s pause";
    ASSERT_EQ(again->size("body.custom_infos"), 1) << again->line();
    EXPECT_EQ(again->str("body.custom_infos.0.key"), "manager_id");
    EXPECT_EQ(again->str("body.custom_infos.0.value"), k_manager_id);
    checked("handshake and id file, ten time syncs and their mean, ping, timezone, unknown type, reconnect");
}

// A refused id is retried every 5 s; a DG that goes away gets three logged connect failures,
// then silent retries, and the agent is back within about 5 s of the DG's return.
TEST_F(DgScenario, RefusedIdThenTheDgGoesAwayAndComesBack)
{
    start_sim({"--refuse"});
    start_agent();
    auto first = sim->wait_for(recv_of(10043));
    ASSERT_TRUE(first) << log();
    auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(sim->wait_for(recv_of(10043), 15s, sim->mark()));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 4500ms) << "the retry waits 5 s";
    EXPECT_GE(log_count("[process_res_common_agent_info] wrong manager id"), 1u) << log();
    EXPECT_NE(access((manager + "/data/manager_id").c_str(), F_OK), 0);

    sim->stop();
    const std::string failed = "[thr_DGConn] Connection failed for DataGather Server.";
    ASSERT_TRUE(log_has(failed, 3, 25s)) << log();
    std::this_thread::sleep_for(6s); // a fourth attempt, silent
    EXPECT_EQ(log_count(failed), 3u);

    start_sim(); // same port, no refusal
    auto back = std::chrono::steady_clock::now();
    ASSERT_TRUE(sim->wait_for(recv_of(10043), 15s)) << log();
    EXPECT_LT(std::chrono::steady_clock::now() - back, 7s);
    EXPECT_TRUE(eventually([&] { return read_file(manager + "/data/manager_id") == k_manager_id + "\n"; }));

    checked("refused id retried every 5 s; 3 logged connect failures then silence; reconnect on return");
}

// agent_restart and agent_stop from the DG: acknowledged at once, run by the command thread,
// their whole output in the done result; a time-out and a patch_stop while running, each
// leaving the script its grace to clean up. (The agent list is HostileHome's.)
TEST_F(DgScenario, RestartStopTimeoutAndStopWhileRunning)
{
    sample_agent();
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log();

    ASSERT_TRUE(sim->command("restart" + request_args("r1")));
    auto ack = result("r1", 1, 5s);
    EXPECT_EQ(describe(ack), "1 [agent manager] Success received the command(agent_restart)");
    EXPECT_EQ(ack ? ack->str("body.command_id") : "", "c-r1");
    auto done = result("r1", 2);
    ASSERT_TRUE(done) << log();
    EXPECT_EQ(done->num("body.result"), 1) << done->line();
    EXPECT_TRUE(contains(done->str("body.result_message"), "stopping") &&
                contains(done->str("body.result_message"), "starting"))
        << done->line();
    ASSERT_TRUE(sim->command("stop" + request_args("s1")));
    ASSERT_TRUE(result("s1", 2)) << log();
    EXPECT_EQ(read_file(home + "/order"), "stop\nstart\nstop\n");
    EXPECT_EQ(log_count("[set_command] idx[0][proto ] execution_id[r1] agent_id[" + k_agent_id), 1u) << log();

    // A stop.sh that traps TERM to clean up gets the grace period for it, at its time-out and
    // at a patch_stop alike: both lines, written a second apart, and no SIGKILL.
    const std::string trap_file = home + "/trap";
    sample_agent("trap 'echo cleanup >> " + trap_file + "; sleep 1; echo cleaned >> " + trap_file +
                 "; exit 1' TERM; sleep 100");
    ASSERT_TRUE(sim->command("stop" + request_args("t1", 1500)));
    auto timed_out = result("t1", 2, 30s);
    EXPECT_EQ(timed_out ? timed_out->num("body.result") : 0, 3) << describe(timed_out);
    EXPECT_TRUE(timed_out && contains(timed_out->str("body.result_message"), "command timeout")) << describe(timed_out);
    EXPECT_EQ(read_file(trap_file), "cleanup\ncleaned\n");

    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("p1") + " file=" + run_path + "/agent_id name=p.bin"));
    ASSERT_TRUE(eventually([&] { return read_file(home + "/order") == "stop\nstart\nstop\nstop\nstop\n"; }, 15s))
        << log();
    ASSERT_TRUE(sim->command("patch_stop" + request_args("p1")));
    auto stopped = result("p1", 2, 15s, from);
    ASSERT_TRUE(stopped) << log();
    EXPECT_EQ(stopped->num("body.result"), 1) << stopped->line();
    EXPECT_TRUE(contains(stopped->str("body.result_message"), "command stop success")) << stopped->line();
    EXPECT_EQ(read_file(trap_file), "cleanup\ncleaned\ncleanup\ncleaned\n");
    EXPECT_EQ(log_count("[run_script] SIGTERM failed, send SIGKILL"), 0u);
    std::string text = log();
    EXPECT_LT(text.find("[patch_command] [struct] install_username["), text.find("[patch_command] [proto ] [0] key["))
        << "option lines follow the request lines";
    checked("restart and stop with their output and order; the TERM trap's grace at a time-out and a stop");
}

// A 100 MiB patch in 64 KiB chunks arrives byte-identical with mode 0755 and runs: stop, the
// patch program with the install information (options in request order), start; one done
// result; then the agent takes a new patch_start.
TEST_F(DgScenario, LargePatchArrivesWholeAndRuns)
{
    sample_agent();
    std::string patch = home + "/patch.bin";
    {
        std::ofstream out(patch, std::ios::binary);
        out << "#!/bin/sh\necho \"setup $1\"; cat \"$1\"; echo setup >> " << home << "/order; echo vkSuccess\nexit 0\n";
        std::ifstream random("/dev/urandom", std::ios::binary);
        std::vector<char> block(1 << 20);
        for (int i = 0; i < 100; i++) {
            random.read(block.data(), static_cast<std::streamsize>(block.size()));
            out.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log();

    auto sent = sim->command("patch_start" + request_args("x1") + " file=" + patch +
                                 " name=setup.bin chunk=65536 opt=ZETA=1 opt=ALPHA=2 opt=MID=3",
                             120s);
    ASSERT_TRUE(sent && sent->is("done")) << (sent ? sent->line() : "no answer");
    EXPECT_EQ(sent->num("chunks"), 1601);
    auto done = result("x1", 2, 120s);
    ASSERT_TRUE(done) << log();
    EXPECT_EQ(done->num("body.result"), 1) << done->line();
    std::string received = manager + "/tmp/setup.bin";
    EXPECT_EQ(system(("cmp -s " + patch + " " + received).c_str()), 0) << "byte-identical";
    struct stat st{};
    ASSERT_EQ(stat(received.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_EQ(read_file(home + "/order"), "stop\nsetup\nstart\n");
    std::string text = done->str("body.result_message");
    size_t options = text.find("ZETA=1\nALPHA=2\nMID=3\nINSTALL_PATH=/opt/sample\n");
    EXPECT_NE(options, std::string::npos) << text;
    EXPECT_TRUE(text.find("stopping") < options && options < text.find("starting")) << text;

    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("x2") + " file=" + run_path + "/agent_id name=id.txt"));
    EXPECT_EQ(describe(sim->wait_for(recv_of(60002), 5s, from)),
              "1 [agent manager] Chunk file install Start (id.txt)")
        << "the finished patch freed the agent";
    checked("100 MiB byte-identical with mode 0755, stop/setup/start with install information, next patch");
}

// A transfer that stalls past its time-out is collected at the next sweep, which frees the
// agent for a new patch_start.
TEST_F(DgScenario, CollectorFreesAStalledTransfer)
{
    write_file(manager + "/data/config", "MGR_LOG_LEVEL=debug\nMGR_INTERVAL_GARBAGE_COLLECT=2\n");
    sample_agent();
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log();
    ASSERT_TRUE(sim->command("patch_start" + request_args("g1", 1000) + " file=" + run_path +
                             "/agent_id name=stalled.bin chunks=0"));
    ASSERT_TRUE(result("g1", 1, 5s));
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("patch_start" + request_args("g2") + " file=" + run_path + "/agent_id name=next.bin chunks=0"));
    EXPECT_EQ(sim->wait_for(recv_of(60002), 5s, from)->num("body.result"), 2) << "still in progress";
    EXPECT_TRUE(eventually(
        [&] {
            size_t mark = sim->mark();
            sim->command("patch_start" + request_args("g3") + " file=" + run_path + "/agent_id name=next.bin chunks=0");
            auto answer = sim->wait_for(recv_of(60002), 5s, mark);
            return answer && answer->num("body.result") == 1;
        },
        20s))
        << log();
    checked("a stalled transfer refuses a second patch_start until the collector's sweep frees it");
}

} // namespace

#endif // QUIL_DG_SIM_BIN
