// Tests of vklog's categories: set-up the way the agent does it, the table of 12, the
// environment switch, applying and re-applying configurations, reload from a file, the
// standard-output category and the end of use.
#include "vklog_internal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void set(vklog_config_t *c, vklog_cfg_type_t key, const std::string &v)
{
    ASSERT_EQ(vklog_config_set(c, key, static_cast<unsigned>(v.size()), v.c_str()), 0) << v;
}

class VklogCategory : public testing::Test
{
  protected:
    void SetUp() override
    {
        vklog_fini();
        unsetenv("OLV_DAEMON_VKLOG_DEACTIVATE");
        std::string tmpl = (fs::temp_directory_path() / "vklog_cat_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override
    {
        vklog_fini();
        unsetenv("OLV_DAEMON_VKLOG_DEACTIVATE");
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    // What the agent's start-up does with the DEFAULT preset.
    vklog_config_t *agent_config(const std::string &level = "info")
    {
        vklog_config_t *c = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
        set(c, VKLOG_CFG_TYPE_NAME, "quil-manager-agent");
        set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, "file");
        set(c, VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME, "false");
        set(c, VKLOG_CFG_TYPE_DIRECTORY, dir_);
        set(c, VKLOG_CFG_TYPE_FILENAME, "quil-manager-agent.log");
        set(c, VKLOG_CFG_TYPE_LEVEL, level);
        return c;
    }
    // What the agent's refresh every 3 s does.
    int refresh(const std::string &level)
    {
        vklog_config_t *c = vklog_config_clone_from_global_log();
        if (c == nullptr)
            return -100;
        set(c, VKLOG_CFG_TYPE_DIRECTORY, dir_);
        set(c, VKLOG_CFG_TYPE_FILENAME, "quil-manager-agent.log");
        set(c, VKLOG_CFG_TYPE_LEVEL, level);
        vklog_config_finish(c);
        int err = 0;
        int rc = vklog_apply_config(c, &err);
        return rc != 0 ? rc : err;
    }
    std::string log_text() const { return read_file(dir_ + "/quil-manager-agent.log"); }

    std::string dir_;
};

TEST_F(VklogCategory, AgentStartRefreshAndEnd)
{
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(agent_config(), &err), 0);
    vklog_t *cat = vklog_get_category("quil-manager-agent");
    ASSERT_NE(cat, nullptr);
    vklog_set_global_log_handle(cat);
    vklog_set_global_log_console_debug_handle(cat);
    VKLOG_INFO(g_vklog.load(), "[main] start\n");
    VKLOG_DEBUG(g_vklog.load(), "[main] hidden\n");

    // An unchanged refresh keeps the configuration in force: nothing swapped, nothing lost.
    vklog_config_t *before = cat->config;
    std::ofstream(dir_ + "/quil-manager-agent.log.9") << "x"; // a clean-up (5 kept) would remove it
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(refresh("info"), 0);
    EXPECT_EQ(cat->config, before);
    EXPECT_TRUE(fs::exists(dir_ + "/quil-manager-agent.log.9")); // no clean-up ran

    // The configuration in force handed back itself is neither freed nor reset.
    ASSERT_EQ(vklog_apply_config(before, &err), 0);
    EXPECT_EQ(cat->config, before);
    VKLOG_INFO(cat, "[main] still here\n");

    ASSERT_EQ(refresh("debug"), 0);
    EXPECT_NE(cat->config, before);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_DEBUG);
    VKLOG_DEBUG(g_vklog_console_debug.load(), "[main] shown\n");
    std::string text = log_text();
    EXPECT_NE(text.find("[INFO][main] start\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    EXPECT_NE(text.find("[DBUG][main] shown\n"), std::string::npos);
    EXPECT_NE(text.find("[INFO][main] still here\n"), std::string::npos);

    vklog_fini();
    EXPECT_EQ(g_vklog.load(), nullptr);
    EXPECT_EQ(g_vklog_console_debug.load(), nullptr);
    EXPECT_EQ(vklog(cat, "f", 1, "g", 1, 1, 2, "late\n"), 0); // inactive: stale handles stay safe
    EXPECT_EQ(vklog_get_category("quil-manager-agent"), nullptr);
    EXPECT_EQ(vklog_config_clone_from_global_log(), nullptr);
}

TEST_F(VklogCategory, TableHoldsTwelveCategories)
{
    for (int i = 0; i < 12; i++) {
        int err = 0;
        ASSERT_EQ(vklog_initialize_with_default_config(("cat" + std::to_string(i)).c_str(), &err), 0) << i;
        EXPECT_EQ(err, 0);
    }
    int err = 0;
    vklog_config_t *c = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    set(c, VKLOG_CFG_TYPE_NAME, "thirteenth");
    EXPECT_EQ(vklog_apply_config(c, &err), -2); // the configuration is freed
    EXPECT_EQ(err, -2);
    EXPECT_EQ(vklog_initialize_with_default_config("thirteenth", &err), -2);
    EXPECT_EQ(vklog_get_category("thirteenth"), nullptr);
    // Existing ones can still be reconfigured.
    ASSERT_EQ(vklog_initialize_with_default_config("cat11", &err), 0);
    EXPECT_NE(vklog_get_category("cat11"), nullptr);
    EXPECT_EQ(vklog_initialize_with_default_config(nullptr, &err), -1);
    EXPECT_EQ(vklog_initialize_with_default_config(std::string(128, 'n').c_str(), &err), -1);
}

TEST_F(VklogCategory, EnvironmentSwitchSilencesOnlyOnExactTrue)
{
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(agent_config(), &err), 0);
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
    EXPECT_EQ(vklog_enable_from_config_name("absent"), -1);
    EXPECT_EQ(vklog_disable(nullptr), -1);
}

TEST_F(VklogCategory, NewCategoryIsSilentUntilObtained)
{
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(agent_config(), &err), 0);
    vklog_t *cat = &g_vklog_manager.log[0];
    VKLOG_ERROR(cat, "before\n");
    ASSERT_EQ(vklog_get_category("quil-manager-agent"), cat);
    VKLOG_ERROR(cat, "after\n");
    EXPECT_EQ(log_text().find("before"), std::string::npos);
    EXPECT_NE(log_text().find("after"), std::string::npos);
}

TEST_F(VklogCategory, ReloadFollowsTheFileTime)
{
    std::string conf = dir_ + "/vklog.conf";
    std::ofstream(conf) << "[app]\ndirectory=" << dir_
                        << "\nfilename=app.log\noutput_type=file\nlevel=error\n";
    timespec t1[2] = {{1000, 0}, {1000, 0}};
    utimensat(AT_FDCWD, conf.c_str(), t1, 0);
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config_file(conf.c_str(), &err), 0);
    vklog_t *cat = vklog_get_category("app");
    ASSERT_NE(cat, nullptr);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_ERROR);
    EXPECT_EQ(vklog_set_config_path("/elsewhere"), -1);

    std::ofstream(conf) << "[app]\ndirectory=" << dir_
                        << "\nfilename=app.log\noutput_type=file\nlevel=trace\n";
    utimensat(AT_FDCWD, conf.c_str(), t1, 0);
    ASSERT_EQ(vklog_reload(&err), 0);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_ERROR); // same time: nothing read

    timespec t2[2] = {{2000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, conf.c_str(), t2, 0);
    ASSERT_EQ(vklog_reload(&err), 0);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_TRACE);

    // A broken file leaves the configuration in force.
    std::ofstream(conf) << "[app]\nlevel=loud\n";
    timespec t3[2] = {{3000, 0}, {3000, 0}};
    utimensat(AT_FDCWD, conf.c_str(), t3, 0);
    ASSERT_EQ(vklog_reload(&err), 0);
    EXPECT_EQ(err, -14);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_TRACE);

    std::ofstream(conf) << "[app]\nlevel=warn\n";
    timespec t4[2] = {{4000, 0}, {4000, 0}};
    utimensat(AT_FDCWD, conf.c_str(), t4, 0);
    vklog_set_reload_disable();
    ASSERT_EQ(vklog_reload(&err), 0);
    EXPECT_EQ(cat->level.load().value, VKLOG_LEVEL_TRACE);

    EXPECT_EQ(vklog_initialize_with_config_file((dir_ + "/absent").c_str(), &err), -11);
    EXPECT_EQ(err, ENOENT);
}

TEST_F(VklogCategory, StandardOutputCategoryAndStdoutOutput)
{
    vklog_t *std_cat = vklog_get_category(nullptr);
    ASSERT_NE(std_cat, nullptr);
    testing::internal::CaptureStdout();
    VKLOG_TRACE(std_cat, "to stdout\n");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.size() > 16 && out.substr(out.size() - 16) == "[TRAC]to stdout\n") << out;
    EXPECT_EQ(out[0], '[');

    // The agent's debug mode: an empty configuration on stdout at exactly TRACE.
    vklog_config_t *c = vklog_config_new();
    set(c, VKLOG_CFG_TYPE_NAME, "debug-mode");
    set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, "stdout,stderr");
    set(c, VKLOG_CFG_TYPE_LEVEL, "=trace");
    set(c, VKLOG_CFG_TYPE_HEADER_FLAG, "level");
    vklog_config_finish(c);
    int err = 0;
    ASSERT_EQ(vklog_apply_config(c, &err), 0);
    vklog_t *dbg = vklog_get_category("debug-mode");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    VKLOG_TRACE(dbg, "trace line\n");
    VKLOG_ERROR(dbg, "error line\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[TRAC]trace line\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(fs::exists("debug-mode.log"));
}

} // namespace
