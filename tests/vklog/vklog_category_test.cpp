// vklog's categories: set-up as the agent does it, the environment switch, (re-)applying
// configurations and reload from a file.
#include "vklog_test_util.h"

namespace
{

class VklogCategory : public vt::TempDirTest
{
  protected:
    // What the agent's start-up does with the DEFAULT preset; with `clone` set, what its
    // refresh every 3 s does to the configuration in force.
    vklog_config_t *agent_config(const std::string &level, bool clone = false)
    {
        vklog_config_t *c = clone ? vklog_config_clone_from_global_log()
                                  : vt::configure(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT),
                                                  {{VKLOG_CFG_TYPE_NAME, "quil-manager-agent"},
                                                   {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file"}});
        return vt::configure(c, {{VKLOG_CFG_TYPE_DIRECTORY, dir_},
                                 {VKLOG_CFG_TYPE_FILENAME, "quil-manager-agent.log"},
                                 {VKLOG_CFG_TYPE_LEVEL, level}});
    }
    int refresh(const std::string &level)
    {
        int err = 0;
        int rc = vklog_apply_config(agent_config(level, true), &err);
        return rc != 0 ? rc : err;
    }
    std::string log_text() const { return vt::read_file(path("quil-manager-agent.log")); }
};

TEST_F(VklogCategory, AgentStartRefreshAndEnd)
{
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(agent_config("info"), &err), 0);
    vklog_t *cat = &g_vklog_manager.log[0];
    VKLOG_ERROR(cat, "[main] before get\n"); // a new category is silent until obtained
    ASSERT_EQ(vklog_get_category("quil-manager-agent"), cat);
    vklog_set_global_log_handle(cat);
    vklog_set_global_log_console_debug_handle(cat);
    VKLOG_INFO(g_vklog.load(), "[main] start\n");
    VKLOG_DEBUG(g_vklog.load(), "[main] hidden\n");

    // An unchanged refresh keeps the configuration in force: no swap and no clean-up.
    vklog_config_t *before = cat->config;
    vt::write_file(path("quil-manager-agent.log.9"), "x"); // a clean-up (5 kept) would remove it
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(refresh("info"), 0);
    EXPECT_EQ(cat->config, before);
    EXPECT_TRUE(exists("quil-manager-agent.log.9"));
    // The configuration in force handed back itself is neither freed nor reset.
    ASSERT_EQ(vklog_apply_config(before, &err), 0);
    EXPECT_EQ(cat->config, before);

    ASSERT_EQ(refresh("debug"), 0);
    VKLOG_DEBUG(g_vklog_console_debug.load(), "[main] shown\n");
    std::string text = log_text();
    EXPECT_EQ(text.find("before get"), std::string::npos);
    EXPECT_NE(text.find("[INFO][main] start\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    EXPECT_NE(text.find("[DBUG][main] shown\n"), std::string::npos);

    vklog_fini();
    EXPECT_EQ(g_vklog.load(), nullptr);
    EXPECT_EQ(vklog(cat, "f", 1, "g", 1, 1, 2, "late\n"), 0); // stale handles stay safe
    EXPECT_EQ(vklog_get_category("quil-manager-agent"), nullptr);
    vklog_t *std_cat = vklog_get_category(nullptr); // a null name: the built-in standard output
    ASSERT_NE(std_cat, nullptr);
    testing::internal::CaptureStdout();
    VKLOG_TRACE(std_cat, "to stdout\n");
    EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("][TRAC]to stdout\n"));
}

TEST_F(VklogCategory, EnvironmentSwitchSilencesOnlyOnExactTrue)
{
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(agent_config("info"), &err), 0);
    vklog_t *cat = vklog_get_category("quil-manager-agent");
    VKLOG_ERROR(cat, "one\n");
    setenv("OLV_DAEMON_VKLOG_DEACTIVATE", "true", 1);
    cat = vklog_get_category("quil-manager-agent");
    VKLOG_ERROR(cat, "two\n");
    EXPECT_EQ(vklog_enable(cat), 0);
    VKLOG_ERROR(cat, "three\n");
    setenv("OLV_DAEMON_VKLOG_DEACTIVATE", "TRUE", 1);
    cat = vklog_get_category("quil-manager-agent");
    VKLOG_ERROR(cat, "four\n");
    EXPECT_EQ(vklog_disable_from_config_name("quil-manager-agent"), 0);
    VKLOG_ERROR(cat, "five\n");
    EXPECT_EQ(vklog_enable_from_config_name("quil-manager-agent"), 0);
    VKLOG_ERROR(cat, "six\n");
    std::string text = log_text();
    for (const char *w : {"one", "four", "six"})
        EXPECT_NE(text.find(w), std::string::npos) << w;
    for (const char *w : {"two", "three", "five"})
        EXPECT_EQ(text.find(w), std::string::npos) << w;
}

TEST_F(VklogCategory, ReloadFollowsTheFileTime)
{
    std::string conf = path("vklog.conf");
    auto write_conf = [&](const std::string &level, time_t mtime) {
        vt::write_file(conf, "[app]\ndirectory=" + dir_ + "\noutput_type=file\nlevel=" + level + "\n", mtime);
    };
    auto level = [] { return vklog_get_category("app")->level.load().value; };
    write_conf("error", 1000);
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config_file(conf.c_str(), &err), 0);
    ASSERT_NE(vklog_get_category("app"), nullptr);
    EXPECT_EQ(level(), VKLOG_LEVEL_ERROR);

    struct {
        const char *level;
        time_t mtime;
        int err, expected;
    } steps[] = {
        {"trace", 1000, 0, VKLOG_LEVEL_ERROR}, // same time: nothing read
        {"trace", 2000, 0, VKLOG_LEVEL_TRACE},
        {"loud", 3000, -14, VKLOG_LEVEL_TRACE}, // a broken file leaves the configuration in force
    };
    for (const auto &s : steps) {
        write_conf(s.level, s.mtime);
        err = 0;
        ASSERT_EQ(vklog_reload(&err), 0);
        EXPECT_EQ(err, s.err) << s.mtime;
        EXPECT_EQ(level(), s.expected) << s.mtime;
    }
    write_conf("warn", 4000);
    vklog_set_reload_disable();
    ASSERT_EQ(vklog_reload(&err), 0);
    EXPECT_EQ(level(), VKLOG_LEVEL_TRACE);
}

} // namespace
