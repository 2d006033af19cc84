// Command execution off the ring with real scripts where the scenario tests do not go, one
// "done" result each.
#include "thr_command.h"

#include <sys/stat.h>

#include "agent_home.h"
#include "command_util.h"
#include "on_demand.h"
#include "vk_string.h"

using daemon_support::read_file;
using daemon_support::write_file;

namespace
{


const char *const k_agent = "7d1e5a3c-2b4f-4a6e-8c9d-0e1f2a3b4c5d";

// The codes reach the DG in the refusal text; the fuzz target checks the substitution itself.
TEST(ConvertEnvToCmd, TemplateCases)
{
    const std::tuple<const char *, const char *, int, const char *> cases[] = {
        {"${run_user_name}:${run_user_name} x", "svc", 1, "svc:svc x"},
        {"sudo -u ${other}", "app", -3, ""},
        {"sudo -u ${run_user_name", "app", -2, ""},
        {"sudo -u ${run_user_name}", "app;reboot", -4, ""},
        {nullptr, "app", -1, ""},
    };
    for (const auto &[tmpl, user, ret, expected] : cases) {
        char out[CUSTOM_PREFIX_SIZE] = {};
        EXPECT_EQ(convert_env_to_cmd(tmpl, out, user), ret) << (tmpl ? tmpl : "null");
        EXPECT_STREQ(out, expected);
    }
}

class Execute : public agent_home::CommandHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::CommandHomeTest::SetUp();
        run_path = dir.path + "/agent";
        ASSERT_EQ(mkdir(run_path.c_str(), 0755), 0);
        script("stop.sh", "echo stopping; echo vkSuccess");
        script("start.sh", "echo starting; echo vkSuccess");
        std::lock_guard<vklock_t> json(g_json_lock);
        g_json_prefix_option[0] = '\0';
        g_json_agent_count = 0;
    }
    void script(const std::string &name, const std::string &body)
    {
        std::string path = run_path + "/" + name;
        write_file(path, "#!/bin/sh\necho \"$0 $*\" >> " + dir.path + "/order\n" + body + "\n");
        chmod(path.c_str(), 0755);
    }
    cmd_info_t command(int cmd_type, const char *exec)
    {
        cmd_info_t c{};
        c.cmd_type = cmd_type;
        vk_strlcpy(c.execution_id, exec);
        vk_strlcpy(c.agent_id, k_agent);
        vk_strlcpy(c.run_path, run_path);
        vk_strlcpy(c.run_username, "app");
        vk_strlcpy(c.install_username, "app");
        c.agent_type = 7;
        c.timeout = 10000;
        return c;
    }
    // Queues c through intake, as the DG would; the acknowledgement is taken off the fake DG.
    void queue(const cmd_info_t &c)
    {
        dg::req_command_message m;
        m.set_execution_id(c.execution_id);
        m.set_cmd_type(static_cast<dg::cmd_type_e>(c.cmd_type));
        m.set_agent_id(c.agent_id);
        m.set_agent_type(static_cast<dg::agent_type_e>(c.agent_type));
        m.set_run_path(c.run_path);
        m.set_run_username(c.run_username);
        m.set_install_username(c.install_username);
        m.set_timeout(static_cast<uint32_t>(c.timeout));
        (*m.mutable_target_agent_infos())["source"] = "test";
        std::string packet = dg_capture::dg_packet(60001, m.SerializeAsString());
        ASSERT_EQ(read_msg_nio(packet.data(), &dg.agent), 0);
        dg.results();
    }
    std::string order() { return read_file(dir.path + "/order"); }

    std::string run_path;
};

TEST_F(Execute, AFailedStopSkipsStartAndATypeWithoutScriptsFails)
{
    script("stop.sh", "echo vkError");
    queue(command(CMD_AGENT_RESTART, "r1"));
    queue(command(9, "u1"));
    EXPECT_EQ(execute_command(), 0);
    auto r = dg.results();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].phase_type() * 10 + r[0].result(), 22);
    EXPECT_EQ(r[1].result(), 2) << "a type without scripts is not reported as a success";
    EXPECT_EQ(order(), run_path + "/stop.sh \n") << "start skipped";
    int start = -1;
    EXPECT_EQ(cmd_ring_count(&start), 0);
    EXPECT_EQ(start, 2);
}

// The prefix is built per command from the run user; a refused template or user, or a root
// rule the users do not meet, runs nothing.
TEST_F(Execute, PrefixAndRootRule)
{
    const std::string not_root = "[agent_manager] user running the agent is not root. agent_id[" + std::string(k_agent) +
                                 "] target_run_username[app] target_install_username[app]";
    const struct {
        const char *prefix, *run_user;
        int root_check;
        std::string message;
    } cases[] = {
        {"env QUIL_USER=${run_user_name}", "app", 0, "user=app\nvkSuccess\n"},
        {"sudo -u ${user}", "app", 0, "[agent_manager] convert error with prefix. g_custom_prefix[-3]"},
        // a refused run user is not hidden by a usable install user
        {"sudo -u ${run_user_name}", "a;reboot", 0, "[agent_manager] convert error with prefix. g_custom_prefix[-4]"},
        {"", "app", 1, not_root},
    };
    script("stop.sh", "echo user=$QUIL_USER; echo vkSuccess");
    for (const auto &c : cases) {
        {
            std::lock_guard<vklock_t> guard(g_json_lock);
            vk_strlcpy(g_json_prefix_option, c.prefix, sizeof(g_json_prefix_option));
            g_json_agent_count = 1;
            g_json_agent_info[0].root_check = c.root_check;
            vk_strlcpy(g_json_agent_info[0].agent_id, k_agent, sizeof(g_json_agent_info[0].agent_id));
        }
        unlink((dir.path + "/order").c_str());
        cmd_info_t stop = command(CMD_AGENT_STOP, "x");
        vk_strlcpy(stop.run_username, c.run_user);
        queue(stop);
        execute_command();
        auto r = dg.results();
        ASSERT_EQ(r.size(), 1u) << c.prefix;
        EXPECT_EQ(r[0].result_message(), c.message);
        EXPECT_EQ(order().empty(), r[0].result() == 2) << "nothing ran";
        EXPECT_EQ(g_custom_prefix[0], '\0') << "cleared after the command";
    }
    cmd_info_t as_root = command(CMD_AGENT_STOP, "x4");
    vk_strlcpy(as_root.run_username, "root");
    vk_strlcpy(as_root.install_username, "root");
    EXPECT_EQ(check_root_auth_to_json(&as_root), 0);
    EXPECT_EQ(as_root.root_check, 1);
}

} // namespace
