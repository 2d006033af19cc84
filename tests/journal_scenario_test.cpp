// Every accepted command is answered once: after a SIGKILL, after a lost connection, and past a
// damaged journal.
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include "dg_scenario.h"

namespace
{

using namespace dg_scenario;

class Journal : public DgScenario
{
  protected:
    // The done results for execution `exec` received so far.
    std::vector<sim_event> dones(const std::string &exec)
    {
        std::vector<sim_event> found;
        for (const auto &e : sim->events())
            if (e.is("recv", 60002) && e.str("body.execution_id") == exec && e.num("body.phase_type") == 2)
                found.push_back(e);
        return found;
    }
    static std::string interrupted(const std::string &exec)
    {
        return "2 [agent manager] The agent stopped while the command was running. (execution_id:" + exec + ")";
    }
};

TEST_F(Journal, CommandsInterruptedByAKillAreAnsweredOnce)
{
    sample_agent("sleep 6; echo vkSuccess");
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036)));
    ASSERT_TRUE(sim->command("restart" + request_args("k1")));
    ASSERT_TRUE(eventually([&] { return contains(read_file(home + "/order"), "stop"); }));
    const std::string patch = home + "/p.bin", part = manager + "/tmp/p.bin.part";
    write_file(patch, std::string(3000, 'x'));
    ASSERT_TRUE(sim->command("patch_start" + request_args("k2") + " file=" + patch + " chunk=1000 chunks=1"));
    ASSERT_TRUE(eventually([&] { return read_file(part).size() == 1000; }));

    kill(agent, SIGKILL);
    waitpid(agent, nullptr, 0);
    size_t mark = sim->mark();
    start_agent();
    for (const char *exec : {"k1", "k2"}) {
        EXPECT_EQ(describe(result(exec, 2, 30s, mark)), interrupted(exec)) << exec;
    }
    EXPECT_NE(access(part.c_str(), F_OK), 0) << "the partial file is removed";

    kill(agent, SIGTERM);
    waitpid(agent, nullptr, 0);
    start_agent();
    ASSERT_TRUE(log_has("[thr_DGConn] sock(", 3));
    EXPECT_TRUE(ping_answered());
    EXPECT_EQ(dones("k1").size(), 1u);
    EXPECT_EQ(dones("k2").size(), 1u);
    checked("a running script and a half transfer killed with the agent get one FAIL done result each");
}

TEST_F(Journal, AResultLostWithTheConnectionIsSentAfterTheReconnect)
{
    sample_agent("sleep 3; echo vkSuccess");
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036)));
    ASSERT_TRUE(sim->command("restart" + request_args("l1")));
    ASSERT_TRUE(eventually([&] { return contains(read_file(home + "/order"), "stop"); }));
    sim->stop(); // the command ends while no DG is there: its result cannot be written
    ASSERT_TRUE(log_has("[send_res_command] (60002) phase_type[2][done]"));
    start_sim();
    auto done = result("l1", 2);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->num("body.result"), 1) << describe(done);
    EXPECT_TRUE(contains(done->str("body.result_message"), "starting")) << "the real result, with the output";
    EXPECT_TRUE(ping_answered());
    EXPECT_EQ(dones("l1").size(), 1u);
    checked("a done result queued without a connection arrives after the reconnect, once");
}

TEST_F(Journal, ADamagedJournalIsSetAside)
{
    const std::string victim = home + "/victim.part";
    struct {
        const char *name;
        std::string text;
    } cases[] = {
        {"not a journal", "garbage\n"},
        {"a part file outside tmp", "quil-manager-agent command journal 1\nA\tx1\tc\t1\ta\t1\t0\t" + victim + "\t\tx1\n"},
        {"a cut line", "quil-manager-agent command journal 1\nD\tx1\tc\t1"},
    };
    start_sim();
    for (const auto &c : cases) {
        write_file(victim, "keep");
        write_file(manager + "/data/cmd_journal", c.text);
        const size_t mark = sim->mark();
        start_agent();
        EXPECT_TRUE(log_has("/data/cmd_journal is damaged")) << c.name;
        EXPECT_TRUE(sim->wait_for(sent_of(50036), 20s, mark) && ping_answered()) << c.name;
        EXPECT_EQ(read_file(manager + "/data/cmd_journal.damaged"), c.text) << c.name;
        EXPECT_EQ(read_file(victim), "keep") << c.name;
        kill(agent, SIGTERM);
        waitpid(agent, nullptr, 0);
        agent = 0;
        unlink((manager + "/log/quil-manager-agent.log").c_str());
    }
    checked("a damaged journal is set aside with a log line; nothing it names is removed");
}

} // namespace

#endif
