// Tests of command execution: the prefix template, the root rule, the install-information
// file, and execute_command working off the ring with real scripts (restart, stop, a full
// patch, a failed stop, a refused prefix or root rule) and reporting one "done" result each.
#include "thr_command.h"

#include <sys/stat.h>

#include "agent_home.h"
#include "command_handler.h"
#include "command_util.h"
#include "dg_capture.h"
#include "on_demand.h"
#include "vk_string.h"

using daemon_support::read_file;
using daemon_support::write_file;

namespace
{

using dg_capture::fake_dg;

const char *const k_agent = "7d1e5a3c-2b4f-4a6e-8c9d-0e1f2a3b4c5d";

TEST(ConvertEnvToCmd, TemplateCases)
{
    struct conversion {
        const char *tmpl;
        const char *user;
        int ret;
        const char *out;
    } cases[] = {
        {"sudo -u ${run_user_name}", "app", 1, "sudo -u app"},
        {"${run_user_name}:${run_user_name} x", "svc", 1, "svc:svc x"},
        {"nice -n 5", "app", 1, "nice -n 5"},
        {"", "app", 0, ""},
        {"sudo -u ${other}", "app", -3, ""},
        {"sudo -u ${run_user_name", "app", -2, ""},
        {"sudo -u ${run_user_name}", "app;reboot", -4, ""},
    };
    for (const conversion &c : cases) {
        char out[CUSTOM_PREFIX_SIZE] = {};
        EXPECT_EQ(convert_env_to_cmd(c.tmpl, out, c.user), c.ret) << c.tmpl;
        if (c.ret >= 0) {
            EXPECT_STREQ(out, c.out) << c.tmpl;
        }
    }
    char out[CUSTOM_PREFIX_SIZE] = {};
    EXPECT_EQ(convert_env_to_cmd(nullptr, out, "app"), -1);
    EXPECT_EQ(convert_env_to_cmd(std::string(600, 'x').c_str(), out, "app"), 1);
    EXPECT_EQ(strlen(out), 511u) << "the template is cut at 511 characters";
}

class Execute : public agent_home::AgentHomeTest
{
  protected:
    void SetUp() override
    {
        agent_home::AgentHomeTest::SetUp();
        dg.publish();
        ASSERT_EQ(init_chunk_hash(), 0);
        run_path = dir.path + "/agent";
        ASSERT_EQ(mkdir(run_path.c_str(), 0755), 0);
        script("stop.sh", "echo stopping; echo vkSuccess");
        script("start.sh", "echo starting; echo vkSuccess");
        std::lock_guard<vklock_t> json(g_json_lock);
        g_json_prefix_option[0] = '\0';
        g_json_agent_count = 0;
    }
    void TearDown() override
    {
        EXPECT_EQ(init_chunk_hash(), 0); // frees what a test left in the map
        agent_home::AgentHomeTest::TearDown();
    }
    std::string script_text(const std::string &body)
    {
        return "#!/bin/sh\necho \"$0 $*\" >> " + dir.path + "/order\n" + body + "\n";
    }
    void script(const std::string &name, const std::string &body)
    {
        std::string path = run_path + "/" + name;
        write_file(path, script_text(body));
        chmod(path.c_str(), 0755);
    }
    cmd_info_t command(int cmd_type, const char *exec)
    {
        cmd_info_t c{};
        c.cmd_type = cmd_type;
        vk_strlcpy(c.execution_id, exec);
        vk_strlcpy(c.command_id, "c-", sizeof(c.command_id));
        vk_strlcpy(c.agent_id, k_agent);
        vk_strlcpy(c.run_path, run_path);
        vk_strlcpy(c.run_username, "app");
        vk_strlcpy(c.install_username, "app");
        vk_strlcpy(c.install_path, "/opt/quil/agent");
        c.agent_type = 7;
        c.timeout = 10000;
        c.result = CMD_RESULT_SUCCESS; // as left by the acknowledgement
        return c;
    }
    // Queues c through intake, as the DG would: a request, and for a patch its file in one
    // chunk. The acknowledgements are taken off the fake DG.
    void queue(const cmd_info_t &c, const std::string &patch = "")
    {
        dg::req_command_message m;
        m.set_execution_id(c.execution_id);
        m.set_command_id(c.command_id);
        m.set_cmd_type(static_cast<dg::cmd_type_e>(c.cmd_type));
        m.set_agent_id(c.agent_id);
        m.set_agent_type(static_cast<dg::agent_type_e>(c.agent_type));
        m.set_run_path(c.run_path);
        m.set_run_username(c.run_username);
        m.set_install_username(c.install_username);
        m.set_install_path(c.install_path);
        m.set_timeout(static_cast<uint32_t>(c.timeout));
        (*m.mutable_target_agent_infos())["source"] = "test";
        if (c.cmd_type == CMD_PATCH_START) {
            m.mutable_target_file_info()->set_file_name(c.file_name);
            m.mutable_target_file_info()->set_file_size(patch.size());
        }
        std::string packet = dg_capture::dg_packet(60001, m.SerializeAsString());
        ASSERT_EQ(read_msg_nio(packet.data(), &dg.agent), 0);
        if (c.cmd_type == CMD_PATCH_START) {
            dg::req_file_chunk_message chunk;
            chunk.set_execution_id(c.execution_id);
            chunk.set_agent_id(c.agent_id);
            chunk.set_chunk_index(1);
            chunk.set_chunk_count(1);
            chunk.set_chunk_size(patch.size());
            chunk.set_chunk_data(patch);
            packet = dg_capture::dg_packet(60004, chunk.SerializeAsString());
            ASSERT_EQ(read_msg_nio(packet.data(), &dg.agent), 0);
        }
        dg.results();
    }
    std::string order() { return read_file(dir.path + "/order"); }

    std::string run_path;
    fake_dg dg;
};

TEST_F(Execute, RestartStopAndAFailedStop)
{
    queue(command(CMD_AGENT_RESTART, "r1"));
    queue(command(CMD_AGENT_STOP, "s1"));
    queue(command(9, "u1"));
    EXPECT_EQ(execute_command(), 0);
    auto r = dg.results();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].phase_type(), 2);
    EXPECT_EQ(r[0].result(), 1);
    EXPECT_EQ(r[0].result_message(), "stopping\nvkSuccess\nstarting\nvkSuccess\n");
    EXPECT_EQ(r[1].result_message(), "stopping\nvkSuccess\n");
    EXPECT_EQ(r[2].result(), 2) << "a type without scripts is not reported as a success";
    EXPECT_EQ(order(), run_path + "/stop.sh \n" + run_path + "/start.sh \n" + run_path + "/stop.sh \n");
    int start = -1;
    EXPECT_EQ(cmd_ring_count(&start), 0);
    EXPECT_EQ(start, 3);

    script("stop.sh", "echo vkError");
    queue(command(CMD_AGENT_RESTART, "r2"));
    EXPECT_EQ(execute_command(), 0);
    r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result(), 2);
    EXPECT_EQ(order().find("start.sh", order().rfind("stop.sh")), std::string::npos) << "start skipped";
}

TEST_F(Execute, PatchRunsStopSetupStartWithTheInstallInformation)
{
    cmd_info_t patch = command(CMD_PATCH_START, "p1");
    vk_strlcpy(patch.file_name, "setup.sh");
    queue(patch, script_text("cat \"$1\"; echo vkSuccess"));
    EXPECT_EQ(execute_command(), 0);
    EXPECT_EQ(patch_count(), 0) << "the finished patch freed the agent";
    const std::string info = "source=test\nINSTALL_PATH=/opt/quil/agent\n";
    EXPECT_EQ(read_file(manager + "/tmp/7_install_info"), info);
    EXPECT_EQ(order(), run_path + "/stop.sh \n" + manager + "/tmp/setup.sh " + manager + "/tmp/7_install_info\n" +
                           run_path + "/start.sh \n");
    auto r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result(), 1);
    EXPECT_EQ(r[0].result_message(), "stopping\nvkSuccess\n" + info + "vkSuccess\nstarting\nvkSuccess\n");
}

TEST_F(Execute, PrefixAndRootRule)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        vk_strlcpy(g_json_prefix_option, "env QUIL_USER=${run_user_name}", sizeof(g_json_prefix_option));
    }
    script("stop.sh", "echo user=$QUIL_USER; echo vkSuccess");
    queue(command(CMD_AGENT_STOP, "x1"));
    execute_command();
    auto r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result_message(), "user=app\nvkSuccess\n");
    EXPECT_EQ(g_custom_prefix[0], '\0') << "cleared after the command";

    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        vk_strlcpy(g_json_prefix_option, "sudo -u ${user}", sizeof(g_json_prefix_option));
    }
    queue(command(CMD_AGENT_STOP, "x2"));
    execute_command();
    r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result(), 2);
    EXPECT_EQ(r[0].result_message(), "[agent_manager] convert error with prefix. g_custom_prefix[-3]");

    // A run user the prefix refuses is not hidden by a usable install user: nothing runs
    // without its user switch.
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        vk_strlcpy(g_json_prefix_option, "sudo -u ${run_user_name}", sizeof(g_json_prefix_option));
    }
    unlink((dir.path + "/order").c_str());
    cmd_info_t bad_user = command(CMD_AGENT_STOP, "x2b");
    vk_strlcpy(bad_user.run_username, "a;reboot");
    queue(bad_user);
    execute_command();
    r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result_message(), "[agent_manager] convert error with prefix. g_custom_prefix[-4]");
    EXPECT_EQ(order(), "") << "nothing ran";

    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        g_json_prefix_option[0] = '\0';
        g_json_agent_count = 1;
        g_json_agent_info[0].root_check = 1;
        vk_strlcpy(g_json_agent_info[0].agent_id, k_agent, sizeof(g_json_agent_info[0].agent_id));
    }
    unlink((dir.path + "/order").c_str());
    queue(command(CMD_AGENT_STOP, "x3"));
    execute_command();
    r = dg.results();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result_message(), "[agent_manager] user running the agent is not root. agent_id[" +
                                         std::string(k_agent) + "] target_run_username[app] target_install_username[app]");
    EXPECT_EQ(order(), "") << "nothing ran";
    cmd_info_t as_root = command(CMD_AGENT_STOP, "x4");
    vk_strlcpy(as_root.run_username, "root");
    vk_strlcpy(as_root.install_username, "root");
    EXPECT_EQ(check_root_auth_to_json(&as_root), 0);
    EXPECT_EQ(as_root.root_check, 1);
}

} // namespace
