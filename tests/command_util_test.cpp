// The script runner run_script, with small shell scripts in a private home.
#include "command_util.h"

#include "agent_home.h"
#include "vk_string.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace
{

using namespace agent_home;

const std::string KEYWORDS_MISSING = "[agent manager] Keyword(vkSuccess, vkError) does not exist";

// True while pid is a process that has not ended (a zombie waiting for its reaper has).
bool alive(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

class RunScriptTest : public AgentHomeTest
{
  protected:
    void SetUp() override
    {
        AgentHomeTest::SetUp();
        ASSERT_EQ(mkdir(run_path.c_str(), 0700), 0);
        set_prefix(0, "", "");
    }
    void TearDown() override
    {
        set_prefix(0, "", ""); // as the command thread leaves them between commands
        AgentHomeTest::TearDown();
    }
    static void set_prefix(int flag, const char *prefix, const char *patch_prefix)
    {
        g_custom_prefix_flag = flag;
        vk_strlcpy(g_custom_prefix, prefix);
        vk_strlcpy(g_custom_patch_prefix, patch_prefix);
    }
    std::string script_path(int run_type)
    {
        return run_type == RUN_TYPE_SETUP
                   ? manager + "/tmp/patch.sh"
                   : run_path + (run_type == RUN_TYPE_START ? "/start.sh" : "/stop.sh");
    }
    // A fresh record for `body` as the script of run_type, result_message starting with `before`.
    void prepare(int run_type, const std::string &body, int timeout_ms, const std::string &before = "")
    {
        std::string path = script_path(run_type);
        write_file(path, "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
        memset(&rec, 0, sizeof rec);
        rec.status = CMD_STATUS_USED;
        rec.timeout = timeout_ms;
        rec.agent_type = 7;
        vk_strlcpy(rec.run_path, run_path);
        vk_strlcpy(rec.file_name, "patch.sh");
        vk_strlcpy(rec.execution_id, "exec-1");
        vk_strlcpy(rec.result_message, before);
    }
    int run(int run_type, const std::string &body, int timeout_ms, const std::string &before = "")
    {
        prepare(run_type, body, timeout_ms, before);
        return run_script(&rec, run_type);
    }

    std::string run_path = home + "/run";
    cmd_info_t rec{};
};

// The verdict comes from the keywords in this run's output as kept: at most 8191 characters
// of result_message, NUL bytes as blanks. Expected: `before` + the kept output + the verdict
// text, all within 9215 characters.
TEST_F(RunScriptTest, KeywordsOfTheKeptOutputOfThisRunDecide)
{
    const std::string a9000 = "printf '%9000s' '' | tr ' ' a", as(9000, 'a');
    struct {
        size_t before;
        std::string body, output; // what the script prints
        int rc;
        bool missing; // the "does not exist" text follows
    } const cases[] = {
        {0, "echo hello; echo vkSuccess", "hello\nvkSuccess\n", 0, false},
        {0, "echo vkSuccess; echo vkError", "vkSuccess\nvkError\n", -97, false},
        {0, "echo nothing", "nothing\n", -97, true},
        {0, "printf 'a\\000b vkSuccess'; exit 3", "a b vkSuccess", 0, false}, // exit status ignored
        {0, "echo vkSuccess; " + a9000, "vkSuccess\n" + as, 0, false},
        {100, a9000 + "; echo vkSuccess", as + "vkSuccess\n", -97, true}, // keyword beyond the cap
        {0, "echo vkSuccess; head -c 1000000 /dev/zero", "vkSuccess\n" + std::string(1000000, ' '), 0, false},
        {8500, "echo vkSuccess", "vkSuccess\n", -97,
         true}, // past the cap (and earlier text holds no keyword)
        {9215, "echo vkSuccess", "vkSuccess\n", -97, true}, // full: not even the verdict fits
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body + " after " + std::to_string(c.before));
        std::string before(c.before, 'x');
        std::string expected =
            (before + c.output).substr(0, std::max<size_t>(c.before, RUN_SCRIPT_OUTPUT_MAX));
        expected = (expected + (c.missing ? KEYWORDS_MISSING : "")).substr(0, CMD_RESULT_MESSAGE_SIZE - 1);
        EXPECT_EQ(run(RUN_TYPE_START, c.body, 20000, before), c.rc);
        EXPECT_EQ(rec.result, c.rc == 0 ? CMD_RESULT_SUCCESS : CMD_RESULT_FAIL);
        EXPECT_EQ(rec.result_message, expected);
        EXPECT_EQ(rec.status, CMD_STATUS_RUN);
    }
    // a keyword printed by an earlier run of the command does not count
    EXPECT_EQ(run(RUN_TYPE_START, "echo nothing", 20000, "stop: vkSuccess|"), -97);
}

// A shell that ignores SIGTERM is killed after the grace; one whose output ended while it
// lingers is ended at the time-out and its verdict stands.
TEST_F(RunScriptTest, TimeOutEndsTheWholeProcessGroup)
{
    const std::string pid_file = run_path + "/pids";
    struct {
        const char *prefix;
        int timeout, rc, result;
        std::string message, log;
        int min_ms;
    } const cases[] = {
        {"trap '' TERM; echo started;", 300, -99, CMD_RESULT_TIMEOUT, "started\n[agent manager] command timeout",
         "[run_script] SIGTERM failed, send SIGKILL", 300 + RUN_SCRIPT_KILL_GRACE_MS},
        {"echo vkSuccess; exec >/dev/null 2>&1;", 600, 0, CMD_RESULT_SUCCESS, "vkSuccess\n",
         "[run_script] output ended but the shell still runs", 600},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.prefix);
        unlink(pid_file.c_str());
        set_prefix(1, c.prefix, "");
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(run(RUN_TYPE_STOP, "echo $$ >> " + pid_file + "; sleep 30", c.timeout), c.rc);
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(c.min_ms));
        EXPECT_EQ(rec.result, c.result);
        EXPECT_EQ(rec.result_message, c.message);
        EXPECT_EQ(log_count(c.log), 1u);
        pid_t pid = atoi(read_file(pid_file).c_str());
        EXPECT_TRUE(pid > 0 && eventually([&] { return !alive(pid); }, std::chrono::seconds(5))) << pid;
    }
}

TEST_F(RunScriptTest, ScriptInheritsNoDescriptorIgnoredSignalOrMask)
{
    int leaked = open((manager + "/data/config").c_str(), O_RDONLY); // deliberately without O_CLOEXEC
    ASSERT_GE(leaked, 3);
    struct sigaction ign = {}, old_pipe = {}, old_chld = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old_pipe);
    sigaction(SIGCHLD, &ign, &old_chld); // as in daemon mode
    sigset_t usr2, old_mask;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, &old_mask);
    int rc = run(RUN_TYPE_STOP, "ls -l /proc/$$/fd; grep -E '^Sig(Ign|Blk)' /proc/self/status; echo vkSuccess",
                 10000);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    sigaction(SIGPIPE, &old_pipe, nullptr);
    sigaction(SIGCHLD, &old_chld, nullptr);
    close(leaked);

    EXPECT_EQ(rc, 0);
    std::string out = rec.result_message;
    EXPECT_TRUE(contains(out, "SigBlk:\t0000000000000000\n")) << out;
    EXPECT_TRUE(contains(out, "SigIgn:\t0000000000000000\n")) << out;
    // 0 is /dev/null, 1 and 2 the pipe; any other descriptor is the shell reading its script
    auto count = [&](const std::string &what) {
        size_t n = 0;
        for (size_t at = out.find(what); at != std::string::npos; at = out.find(what, at + 1))
            n++;
        return n;
    };
    EXPECT_EQ(count(" 0 -> /dev/null\n") + count(" 1 -> pipe:[") + count(" 2 -> pipe:["), 3u) << out;
    EXPECT_EQ(count(" -> "), 3 + count(" -> " + script_path(RUN_TYPE_STOP) + "\n")) << out;
    EXPECT_EQ(log_count("[run_script] waitpid failed."), 0u); // SIGCHLD was set back to default
    EXPECT_EQ(log_count("[run_script] child process pid["), 1u);
}

TEST_F(RunScriptTest, CommandLineByRunTypeAndPrefix)
{
    const std::string info = manager + "/tmp/7_install_info";
    const char *body = "echo \"args=$* run=${QUIL_PREFIX_SEEN:-0} patch=${QUIL_PATCH_PREFIX_SEEN:-0}\"; "
                       "echo vkSuccess";
    struct {
        int run_type, flag;
        std::string output;
    } const cases[] = {
        {RUN_TYPE_STOP, 0, "args= run=0 patch=0"},
        {RUN_TYPE_START, 1, "args= run=1 patch=0"},
        {RUN_TYPE_START, -3, "args= run=0 patch=0"}, // only 1 means a prefix
        {RUN_TYPE_SETUP, 0, "args=" + info + " run=0 patch=0"},
        {RUN_TYPE_SETUP, 1, "args=" + info + " run=0 patch=1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.run_type) + " " + std::to_string(c.flag));
        set_prefix(c.flag, "env QUIL_PREFIX_SEEN=1", "env QUIL_PATCH_PREFIX_SEEN=1");
        EXPECT_EQ(run(c.run_type, body, 10000), 0);
        EXPECT_EQ(rec.result_message, c.output + "\nvkSuccess\n");
    }
}

TEST_F(RunScriptTest, NoCommandLineRunsNothing)
{
    char saved_home[VK_PATH_SIZE];
    memcpy(saved_home, g_vk_manager_home, sizeof saved_home);
    vk_strlcpy(g_vk_manager_home, "/" + std::string(VK_PATH_SIZE - 2, 'h')); // 255 characters
    set_prefix(1, "", std::string(CUSTOM_PREFIX_SIZE - 1, 'p').c_str());
    prepare(RUN_TYPE_SETUP, "echo vkSuccess", 10000, "before|");
    int too_long = run_script(&rec, RUN_TYPE_SETUP); // a cut line would run another path
    memcpy(g_vk_manager_home, saved_home, sizeof saved_home);
    EXPECT_EQ(too_long, -97);
    EXPECT_EQ(rec.result, CMD_RESULT_FAIL);
    EXPECT_EQ(rec.result_message, std::string("before|[agent manager] command line too long"));
    EXPECT_EQ(run_script(&rec, 3), -97); // no such run type
    // A run path the shell would read as syntax could escape the run user's prefix.
    prepare(RUN_TYPE_STOP, "echo vkSuccess", 10000, "");
    vk_strlcpy(rec.run_path, "/opt/x; touch " + dir.path + "/escaped #");
    EXPECT_EQ(run_script(&rec, RUN_TYPE_STOP), -97);
    EXPECT_EQ(rec.result_message, std::string("[agent manager] run path is not allowed"));
    EXPECT_NE(access((dir.path + "/escaped").c_str(), F_OK), 0);
    EXPECT_EQ(rec.status, CMD_STATUS_USED);
    EXPECT_EQ(log_count("[run_script] start command["), 0u);
}

} // namespace
