// The target agent registry: autoload list, agent_config.json, id files and the manager id
// file, loaded into the shared records the command thread and the agent list read.
#include <gtest/gtest.h>

#include <mutex>

#include "agent_home.h"
#include "global_var.h"
#include "util.h"

namespace
{

using daemon_support::write_file;

class Registry : public agent_home::AgentHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::AgentHomeTest::SetUp();
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_count = 0;
        memset(g_json_agent_info, 0, sizeof(g_json_agent_info));
    }
    // An id file for agent `id`; returns its path.
    std::string id_file(const std::string &name, const std::string &content)
    {
        std::string path = home + "/" + name;
        write_file(path, content);
        return path;
    }
    void config(const std::string &json) { write_file(manager + "/data/agent_config.json", json); }
    std::string agent_id(int i)
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        return g_json_agent_info[i].agent_id;
    }
    int root_check(int i)
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        return g_json_agent_info[i].root_check;
    }
};

const std::string k_id_a = "aaaaaaaa-0000-4000-8000-000000000001";
const std::string k_id_b = "bbbbbbbb-0000-4000-8000-000000000002";

TEST_F(Registry, AutoloadAndConfigFillOneRegistry)
{
    std::string a = id_file("a.id", k_id_a + "\n"), b = id_file("b.id", k_id_b + "-and-a-long-tail\n"),
                short_id = id_file("s.id", "short\nsecond line\n");
    // Trimmed, empty lines kept as slots that name no file.
    write_file(manager + "/data/autoload_conf", "  " + a + "  \n\n" + home + "/missing.id\n");
    ASSERT_EQ(init_auto_load(home.c_str()), 0);
    EXPECT_EQ(g_auto_load_count, 3);
    config(R"({"common_option": [{"custom_prefix": "sudo -u ${run_user_name}"}, {"other": 1}],
               "groupA": [{"path": ")" + a + R"(", "root_check": 1}, {"path": 7}, {"root_check": 1},
                          {"path": ")" + b + R"("}],
               "groupB": [{"path": ")" + short_id + R"(", "root_check": "yes"}]})");
    EXPECT_EQ(parse_agent_config_file(), 3);
    EXPECT_EQ(agent_id(0), k_id_a) << "the autoload agent and the config entry are one record";
    EXPECT_EQ(root_check(0), 1);
    EXPECT_EQ(agent_id(1), k_id_b) << "cut at 36 characters";
    EXPECT_EQ(agent_id(2), "short") << "ids are text: the line end is dropped";
    EXPECT_STREQ(g_json_prefix_option, "sudo -u ${run_user_name}");
    EXPECT_EQ(log_count("[parse_agent_config_file] Invalid path field [groupA]"), 2u);
    EXPECT_EQ(log_count("[parse_agent_config_file] Not set field [common_option]"), 1u);

    // A second load keeps the indexes: root_check absent resets to 0, a non-number keeps it.
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_agent_info[2].root_check = 5;
    }
    config(R"({"g": [{"path": ")" + a + R"("}, {"path": ")" + short_id + R"(", "root_check": "x"}]})");
    EXPECT_EQ(parse_agent_config_file(), 3);
    EXPECT_EQ(root_check(0), 0);
    EXPECT_EQ(root_check(2), 5);
    EXPECT_STREQ(g_json_prefix_option, "") << "rewritten on each load";
}

TEST_F(Registry, SixtyFifthAgentIsRefusedInEveryGroup)
{
    std::string entries;
    for (int i = 0; i < 66; i++) {
        char id[40];
        snprintf(id, sizeof(id), "%08d-0000-4000-8000-000000000000", i);
        entries += std::string(i ? "," : "") + R"({"path": ")" + id_file(std::to_string(i) + ".id", id) + R"("})";
    }
    config(R"({"g1": [)" + entries + R"(], "g2": [)" + entries + "]}");
    EXPECT_EQ(parse_agent_config_file(), MAX_AGENT_COUNT);
    EXPECT_EQ(log_count("MAX_AGENT_COUNT!!!"), 2u) << "each group meets the full registry once";
}

TEST_F(Registry, BrokenConfigurationFailsTheLoadButKeepsAutoloadAgents)
{
    write_file(manager + "/data/autoload_conf", id_file("a.id", k_id_a) + "\n");
    ASSERT_EQ(init_auto_load(home.c_str()), 0);
    EXPECT_EQ(parse_agent_config_file(), -1);
    EXPECT_EQ(agent_id(0), k_id_a);
    config("");
    EXPECT_EQ(parse_agent_config_file(), -6);
    config("{\"g\": [");
    EXPECT_EQ(parse_agent_config_file(), -7);
    EXPECT_EQ(log_count("[parse_agent_config_file] Json file format error"), 1u);
    EXPECT_EQ(g_json_agent_count, 1);
    EXPECT_EQ(init_auto_load((home + "/nowhere").c_str()), -1);
    EXPECT_EQ(g_auto_load_count, 0);
}

TEST_F(Registry, ManagerIdFileFirstLineCutAt36)
{
    set_manager_id("before");
    EXPECT_EQ(get_manager_agent_id(), -1);
    char id[MANAGER_ID_LEN + 1];
    copy_manager_id(id);
    EXPECT_STREQ(id, "before");
    write_file(manager + "/data/manager_id", "");
    EXPECT_EQ(get_manager_agent_id(), 0);
    copy_manager_id(id);
    EXPECT_STREQ(id, "before") << "an empty file keeps the id";
    write_file(manager + "/data/manager_id", k_id_b + "-tail\nnext\n");
    EXPECT_EQ(get_manager_agent_id(), 0);
    copy_manager_id(id);
    EXPECT_EQ(std::string(id), k_id_b);
}

} // namespace
