// The real agent and quil-dg-sim on a tampered home (links, FIFOs, a full disk, loose modes).
#ifdef QUIL_DG_SIM_BIN

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>

#include "dg_scenario.h"

namespace
{

using namespace dg_scenario;

class HostileHome : public DgScenario
{
  protected:
    // Starts another agent on this home under a file-size limit of 0 and waits for its end; its
    // output goes through a pipe (a file would meet the limit). Returns that output.
    std::string agent_on_full_disk()
    {
        std::vector<std::string> e = env;
        e.push_back("MGR_RECEIVER_ADDR=127.0.0.1:" + std::to_string(port));
        e.push_back("GCOV_ERROR_FILE=/dev/null"); // a coverage build cannot write its counts here
        std::string line =
            std::string("{ (ulimit -f 0; exec ") + QUIL_AGENT_BIN + "); echo exit $?; } 2>&1 | cat";
        EXPECT_TRUE(ends(spawn({"/bin/sh", "-c", line}, e, home + "/other.out")));
        return read_file(home + "/other.out");
    }
    static bool ends(pid_t pid)
    {
        return eventually([&] { return waitpid(pid, nullptr, WNOHANG) == pid; });
    }
    void file_size_limit(rlim_t limit) // of the running agent
    {
        rlimit now{limit, RLIM_INFINITY};
        ASSERT_EQ(prlimit(agent, RLIMIT_FSIZE, &now, nullptr), 0);
    }
    static bool is_regular(const std::string &path)
    {
        struct stat st {
        };
        return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    }
    std::string err() { return read_file(home + "/agent.err"); }
    std::string data = manager + "/data/";
};

// Links at the pid file, config.tmp, manager_id and the log file leave their target unchanged
// and send none of its bytes. Id files are read through links; a FIFO among them is skipped
// without a hang, a non-UTF-8 id is left out, and ids carry no line end.
TEST_F(HostileHome, LinksAreNotFollowedAndIdsAreText)
{
    const std::string secret = home + "/secret", text = "SECRET-0123456789-abcdefghij-0123456789\n";
    write_file(secret, text);
    ASSERT_EQ(symlink(secret.c_str(), (data + "manager_agent_pid").c_str()), 0);
    start_sim();
    start_agent();
    EXPECT_TRUE(ends(agent)) << "a pid file that is a link refuses the start";
    agent = 0;
    EXPECT_TRUE(
        contains(log(), "[check_double_execution] file(" + data + "manager_agent_pid) is a symbolic"));

    ASSERT_EQ(unlink((data + "manager_agent_pid").c_str()) + unlink((data + "config").c_str()), 0);
    const std::string other_id = "7d1e0c4b-2a9f-4b6e-8c3d-5f0a1b2c3d4e";
    write_file(home + "/a.id", k_agent_id + "\n");
    write_file(home + "/target.id", other_id);
    write_file(home + "/bad.id", "\xff\xfe-not-text\n");
    ASSERT_EQ(symlink(secret.c_str(), (data + "config.tmp").c_str()) +
                  symlink(secret.c_str(), (data + "manager_id").c_str()) +
                  symlink((home + "/target.id").c_str(), (home + "/linked.id").c_str()) +
                  mkfifo((home + "/fifo.id").c_str(), 0600),
              0);
    write_file(data + "autoload_conf",
               home + "/fifo.id\n" + home + "/bad.id\n" + home + "/a.id\n" + home + "/linked.id\n");
    write_file(data + "agent_config.json", "{}");
    start_agent();
    auto hello = sim->wait_for(recv_of(10043));
    ASSERT_TRUE(hello) << log();
    EXPECT_EQ(hello->size("body.custom_infos"), 0) << hello->line();
    auto list = sim->wait_for(recv_of(60003), 45s);
    ASSERT_TRUE(list) << log();
    EXPECT_EQ(list->num("header.protocol_stamp"), 60003);
    EXPECT_EQ(list->size("body.target_agent_infos"), 2) << list->line();
    EXPECT_EQ(list->str("body.target_agent_infos.0.agent_id"), k_agent_id);
    EXPECT_EQ(list->str("body.target_agent_infos.1.agent_id"), other_id);

    EXPECT_TRUE(is_regular(data + "manager_id") && read_file(data + "manager_id") == k_manager_id + "\n");
    EXPECT_TRUE(contains(log(), "[set_agent_id_to_list] file(" + home + "/bad.id) id is not valid UTF-8"));

    // A link at the log file (switched to by a reload): no line reaches the linked file.
    ASSERT_EQ(symlink(secret.c_str(), (manager + "/log/linked.log").c_str()), 0);
    write_file(data + "config", "MGR_LOG_LEVEL=debug\nMGR_LOG_FILENAME=linked.log\n");
    EXPECT_TRUE(eventually([&] { return contains(err(), "/log/linked.log cannot be written"); }, 20s)) << err();
    EXPECT_TRUE(ping_answered());
    EXPECT_EQ(read_file(secret), text);
    for (const sim_event &e : sim->events())
        EXPECT_FALSE(contains(e.line(), "SECRET")) << e.line();
}

// FIFOs at manager_id, agent_config.json, autoload_conf and config, a directory at
// manager_id.tmp, then a full disk: the handshake completes each time, the id stays in memory
// and goes out at the next handshake, and once the disk has room again it is saved.
TEST_F(HostileHome, FifosAndAnUnsavableIdKeepTheConnection)
{
    ASSERT_EQ(unlink((data + "config").c_str()), 0);
    for (const char *name : {"manager_id", "agent_config.json", "autoload_conf", "config"})
        ASSERT_EQ(mkfifo((data + name).c_str(), 0600), 0) << name;
    ASSERT_EQ(mkdir((data + "manager_id.tmp").c_str(), 0700), 0);
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log() << err();
    EXPECT_TRUE(ping_answered());
    EXPECT_TRUE(
        log_has("[save_manager_id] file(" + data + "manager_id) save failed (" + std::to_string(EISDIR)));
    EXPECT_TRUE(contains(err(), "[init_auto_load] file(" + data + "autoload_conf) is a fifo")) << err();
    // The command thread gets past both of its files.
    EXPECT_TRUE(log_has("[parse_agent_config_file] file(" + data + "agent_config.json) is a fifo", 1, 45s));
    EXPECT_TRUE(log_has("[reload_config_file] file(" + data + "config) is a fifo"));

    ASSERT_EQ(rmdir((data + "manager_id.tmp").c_str()), 0);
    file_size_limit(0);
    size_t from = sim->mark();
    ASSERT_TRUE(sim->command("close"));
    auto again = sim->wait_for(recv_of(10043), 15s, from);
    ASSERT_TRUE(again) << log();
    EXPECT_EQ(again->str("body.custom_infos.0.value"), k_manager_id) << "kept in memory";
    EXPECT_TRUE(ping_answered()) << "a full disk costs no connection";
    EXPECT_FALSE(is_regular(data + "manager_id"));
    file_size_limit(RLIM_INFINITY);
    ASSERT_TRUE(sim->command("close"));
    EXPECT_TRUE(eventually([&] { // never read the FIFO itself: that would block
        return is_regular(data + "manager_id") && read_file(data + "manager_id") == k_manager_id + "\n";
    })) << "saved at the next handshake";
}

// A root agent ignores a data/config others may write, at start and at the re-read. On a full
// disk a second agent meets the first one's lock even when the pid record names another; an
// agent whose pid record cannot be written does not start.
TEST_F(HostileHome, LooseConfigUnderRootAndOneAgentPerHomeOnAFullDisk)
{
    const std::string refused = "_config_file] file(" + data + "config) refused: owner uid 0, mode 0666";
    write_file(data + "config", "MGR_LOG_FILENAME=loose.log\n");
    ASSERT_EQ(chmod((data + "config").c_str(), 0666), 0);
    start_sim();
    start_agent();
    ASSERT_TRUE(sim->wait_for(sent_of(50036))) << log() << err();
    if (geteuid() == 0) {
        EXPECT_TRUE(contains(err(), "[load" + refused)) << err();
        EXPECT_TRUE(log_has("[reload" + refused));
        EXPECT_NE(access((manager + "/log/loose.log").c_str(), F_OK), 0);
    }

#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the TSan runtime writes a file at start, which a file-size limit of 0 forbids";
#endif
    write_file(data + "manager_agent_pid", "0"); // the record lost: only the lock says who runs
    size_t from = sim->mark();
    EXPECT_TRUE(agent_on_full_disk().ends_with("\nexit 0\n"));
    EXPECT_TRUE(ping_answered());
    kill(agent, SIGTERM);
    ASSERT_TRUE(ends(agent));
    agent = 0;
    EXPECT_TRUE(agent_on_full_disk().ends_with(
        "[check_double_execution] pid record cannot be written. FileName:" + data + "manager_agent_pid (" +
        std::to_string(EFBIG) + ") not started.\nexit 0\n"));
    EXPECT_FALSE(sim->wait_for(recv_of(10043), 1s, from)) << "neither of them connected";
}

} // namespace

#endif // QUIL_DG_SIM_BIN
