// Fixtures of the unit tests that need the agent's start-up state without starting it: a private
// home <tmp>/manager/{data,tmp,log}, the option table bootstrapped, the log at TRACE.
#pragma once

#include "command_handler.h"
#include "daemon_support.h"
#include "dg_capture.h"
#include "global_var.h"
#include "thr_dgconn.h"
#include "pub_conf.h"
#include "vklog.h"

#include <sys/stat.h>

namespace agent_home
{

using namespace daemon_support;

class AgentHomeTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path.empty());
        ASSERT_EQ(init_global_var(dir.path.c_str()), 0);
        g_dg_is_connection.store(0); // a start with no connection, as in a fresh process
        g_remote_conf_is_initialize.store(0);
        for (const char *sub : {"", "/data", "/tmp", "/log"})
            ASSERT_EQ(mkdir((manager + sub).c_str(), 0700), 0) << sub;
        write_file(manager + "/data/config", "MGR_LOG_LEVEL=trace\n");
        setenv("MGR_QUIL_MANAGER_HOME", manager.c_str(), 1);
        testing::internal::CaptureStdout();
        int ret = initialize_configure_manager_agent(0);
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(ret, 0);
        ASSERT_NE(g_vklog.load(), nullptr);
    }
    void TearDown() override
    {
        vklog_fini();
        destroy_configure(g_conf_handle);
        g_conf_handle = nullptr;
        unsetenv("MGR_QUIL_MANAGER_HOME");
    }

    std::string log_text() { return read_file(manager + "/log/quil-manager-agent.log"); }
    // Number of log lines that contain `what`.
    size_t log_count(const std::string &what)
    {
        std::string text = log_text();
        size_t n = 0;
        for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + what.size()))
            n++;
        return n;
    }

    temp_dir dir{"agent_home_test"};
    std::string home = dir.path;
    std::string manager = dir.path + "/manager";
};

// The command units' fixture: a fake DG published as the connection, and a patch map that is
// fresh for each test and freed (with what a test left in it) after it.
class CommandHomeTest : public AgentHomeTest
{
  protected:
    void SetUp() override
    {
        AgentHomeTest::SetUp();
        dg.publish();
        ASSERT_EQ(init_chunk_hash(), 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(init_chunk_hash(), 0);
        AgentHomeTest::TearDown();
    }
    dg_capture::fake_dg dg;
};

} // namespace agent_home
