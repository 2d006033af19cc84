// thr_command: the command thread and the execution of queued commands.
#include "thr_command.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>

#include "cmd_journal.h"
#include "command_handler.h"
#include "command_util.h"
#include "configure.h"
#include "global_var.h"
#include "os/linux/vk_notify.h"
#include "pkt_proto/proto_send.h"
#include "pub_conf.h"
#include "signal_ctl.h"
#include "util.h"
#include "vk_file.h"
#include "vk_string.h"
#include "vk_time.h"
#include "vklog.h"

namespace
{

constexpr int k_report_period_s = 30;
constexpr int k_execute_period_s = 5;

// Sets the result and replaces the text (cut to the record's field).
template <typename... Args> void set_result(cmd_info_t *record, int result, const char *format, Args... args)
{
    record->result = result;
    snprintf(record->result_message, sizeof(record->result_message), format, args...);
}

// A user name is spliced into a shell command line by the prefix: only the portable
// user-name characters may appear in it.
bool user_name_usable(std::string_view user)
{
    if (user.empty() || user.size() >= 64)
        return false;
    for (char c : user)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
              c == '-'))
            return false;
    return true;
}

// Appends text to out (CUSTOM_PREFIX_SIZE bytes, terminated). False when it does not fit.
bool append(char *out, std::string_view text)
{
    size_t used = strnlen(out, CUSTOM_PREFIX_SIZE - 1);
    if (text.size() > CUSTOM_PREFIX_SIZE - 1 - used)
        return false;
    memcpy(out + used, text.data(), text.size());
    out[used + text.size()] = '\0';
    return true;
}

// Runs the scripts of the command in record; returns the first negative run_script result,
// or 0. Each run appends its output and verdict to the record.
int run_scripts(cmd_info_t *record, int idx)
{
    const char *tag = record->cmd_type == CMD_AGENT_RESTART ? "agent_restart"
                      : record->cmd_type == CMD_AGENT_STOP  ? "agent_stop"
                                                            : "agent_patch";
    VKLOG_INFO(g_vklog.load(), "[execute_command][%s] idx[%d] cmd_type[%d][%s] agent_id[%s] execution_id[%s]\n", tag,
               idx, record->cmd_type, cmd_type_name(record->cmd_type), record->agent_id, record->execution_id);
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    int rc = run_script(record, RUN_TYPE_STOP);
    if (rc < 0) {
        VKLOG_ERROR(g_vklog.load(), "[execute_command][%s] stop failed(%d).\n", tag, rc);
        return rc;
    }
    if (record->cmd_type == CMD_AGENT_STOP)
        return 0;
    if (record->cmd_type == CMD_PATCH_START) {
        rc = create_agent_info_file(record);
        if (rc < 0) {
            VKLOG_ERROR(g_vklog.load(), "[execute_command][%s] create_agent_info_file failed(%d).\n", tag, rc);
            return rc;
        }
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        rc = run_script(record, RUN_TYPE_SETUP);
        if (rc < 0) {
            VKLOG_ERROR(g_vklog.load(), "[execute_command][%s] setup failed(%d).\n", tag, rc);
            return rc;
        }
    }
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    rc = run_script(record, RUN_TYPE_START);
    if (rc < 0)
        VKLOG_ERROR(g_vklog.load(), "[execute_command][%s] start failed(%d).\n", tag, rc);
    return rc;
}

// Prefix, root rule and scripts of one command, working on the private copy `record` of
// slot idx. The result and its text are left in record.
void run_command(cmd_info_t *record, int idx)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        int run = convert_env_to_cmd(g_json_prefix_option, g_custom_prefix, record->run_username);
        // Both conversions use the same template, so the second result stands for both, except
        // that a user name the first one refused must not let stop.sh and start.sh run
        // without their user switch.
        g_custom_prefix_flag =
            convert_env_to_cmd(g_json_prefix_option, g_custom_patch_prefix, record->install_username);
        if (run < 0)
            g_custom_prefix_flag = run;
    }
    VKLOG_INFO(g_vklog.load(), "[execute_command] command prefix info g_custom_prefix[%s] g_custom_patch_prefix[%s] g_custom_prefix_flag[%d]\n",
               g_custom_prefix, g_custom_patch_prefix, g_custom_prefix_flag);
    if (g_custom_prefix_flag < 0)
        set_result(record, CMD_RESULT_FAIL, "[agent_manager] convert error with prefix. g_custom_prefix[%d]",
                   g_custom_prefix_flag);
    int root = check_root_auth_to_json(record);
    VKLOG_INFO(g_vklog.load(), "[execute_command] set is_user_root [%d] \n", root);
    if (root < 0) {
        VKLOG_INFO(g_vklog.load(), "[execute_command] user running the agent is not root. agent_id[%s] target_run_username[%s] target_install_username[%s]\n",
                   record->agent_id, record->run_username, record->install_username);
        set_result(record, CMD_RESULT_FAIL,
                   "[agent_manager] user running the agent is not root. agent_id[%s] target_run_username[%s] "
                   "target_install_username[%s]",
                   record->agent_id, record->run_username, record->install_username);
    }
    if (g_custom_prefix_flag < 0 || root != 0)
        return;
    switch (record->cmd_type) {
    case CMD_AGENT_RESTART:
    case CMD_AGENT_STOP:
    case CMD_PATCH_START:
        run_scripts(record, idx);
        break;
    default:
        // Nothing to run for a type the agent does not know: reported as a failure rather
        // than as the success of its acknowledgement.
        VKLOG_ERROR(g_vklog.load(), "[execute_command] cmd_type failed(%d)\n", record->cmd_type);
        set_result(record, CMD_RESULT_FAIL, "[agent manager] unknown command type(%d)", record->cmd_type);
        break;
    }
}

// Runs, reports and ends the command of slot (taken into work).
void finish_command(cmd_info_t *work, int slot)
{
    run_command(work, slot);
    char journal_key[sizeof(work->execution_id)];
    vk_strlcpy(journal_key, work->execution_id);
    cmd_ring_stop_ids(slot, work); // a patch_stop during the run: its ids get the answer
    VKLOG_INFO(g_vklog.load(), "[execute_command] send result message. idx[%d] cmd_type[%d][%s] agent_id[%s] execution_id[%s]\n",
               slot, work->cmd_type, cmd_type_name(work->cmd_type), work->agent_id, work->execution_id);
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    {
        // Journaled first: a result lost with the connection is sent again after the next one.
        cmd_journal_send_guard guard;
        cmd_journal_done(journal_key, work);
        send_res_command(work, CMD_PHASE_DONE, journal_key);
    }
    VKLOG_INFO(g_vklog.load(), "[execute_command] delete command. idx[%d] cmd_type[%d][%s] agent_id[%s] execution_id[%s]\n",
               slot, work->cmd_type, cmd_type_name(work->cmd_type), work->agent_id, work->execution_id);
    memset(g_custom_prefix, 0, sizeof(g_custom_prefix));
    memset(g_custom_patch_prefix, 0, sizeof(g_custom_patch_prefix));
    cmd_ring_finish(slot, work);
}

} // namespace

int convert_env_to_cmd(const char *tmpl, char *out, const char *user)
{
    if (tmpl == nullptr || out == nullptr)
        return -1;
    if (tmpl[0] == '\0')
        return 0;
    std::string_view rest(tmpl, strnlen(tmpl, CUSTOM_PREFIX_SIZE - 1));
    std::string_view name_user(user != nullptr ? user : "");
    for (;;) {
        size_t open = rest.find("${");
        if (open == std::string_view::npos)
            return append(out, rest) ? 1 : -1;
        size_t close = rest.find('}', open + 2);
        if (close == std::string_view::npos)
            return -2;
        if (rest.substr(open + 2, close - open - 2) != "run_user_name")
            return -3;
        if (!user_name_usable(name_user))
            return -4;
        if (!append(out, rest.substr(0, open)) || !append(out, name_user))
            return -1;
        rest.remove_prefix(close + 1);
    }
}

int check_root_auth_to_json(cmd_info_t *record)
{
    {
        std::lock_guard<vklock_t> guard(g_json_lock);
        for (int i = 0; i < g_json_agent_count && i < MAX_AGENT_COUNT; i++)
            if (strcmp(g_json_agent_info[i].agent_id, record->agent_id) == 0)
                record->root_check = g_json_agent_info[i].root_check;
    }
    if (record->root_check == 0 || g_custom_prefix_flag != 0)
        return 0;
    return strcmp(record->run_username, "root") == 0 && strcmp(record->install_username, "root") == 0 ? 0 : -1;
}

int create_agent_info_file(cmd_info_t *record)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    char path[VK_PATH_SIZE + 64];
    snprintf(path, sizeof(path), "%s/tmp/%d_install_info", g_vk_manager_home, record->agent_type);
    // Read by the patch program, which may run as the install user: readable by all,
    // writable by the agent's user only, never written through a planted link.
    int fd = vk_create_file_fresh(path, 0644);
    FILE *file = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (file == nullptr) {
        if (fd >= 0)
            close(fd);
        set_result(record, CMD_RESULT_FAIL, "%s", "[agent manager] create patch agent info file failed");
        return -1;
    }
    const int count = record->option_count < CMD_OPTION_COUNT ? record->option_count : CMD_OPTION_COUNT;
    for (int i = 0; i < count; i++)
        fprintf(file, "%s=%s\n", record->options[i].key, record->options[i].value);
    fprintf(file, "INSTALL_PATH=%s\n", record->install_path);
    if (fclose(file) != 0) {
        set_result(record, CMD_RESULT_FAIL, "%s", "[agent manager] create patch agent info file failed");
        return -1;
    }
    return 0;
}

int execute_command()
{
    int start = 0, end = 0;
    if (cmd_ring_count(&start, &end) == 0) {
        VKLOG_DEBUG(g_vklog.load(), "[execute_command] command buffer empty!!!!!!!! start_idx[%d] end_idx[%d] cmd_count[%d]\n",
                    start, end, 0);
        return 0;
    }
    VKLOG_DEBUG(g_vklog.load(), "[execute_command] command buffer check start. start_idx[%d] end_idx[%d] cmd_count[%d]\n",
                start, end, cmd_ring_count());
    // The record a script runs on: 12 KB, on this thread's 10 MiB stack.
    cmd_info_t work{};
    while (g_stop_the_world.load() == 0) {
        vk_heartbeat(HEARTBEAT_COMMAND);
        const int slot = cmd_ring_take(&work);
        if (slot < 0)
            break;
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        finish_command(&work, slot);
    }
    return 0;
}

void *thr_command(void *)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
    clear_agent_registry();
    char config_path[VK_PATH_SIZE + 32];
    snprintf(config_path, sizeof(config_path), "%s/data/%s", g_vk_manager_home, "config");
    pthread_setname_np(pthread_self(), "quil-command");
    int64_t tick = vk_get_time_msec() / 1000 + 1;
    while (g_stop_the_world.load() == 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
        vk_heartbeat(HEARTBEAT_COMMAND);
        int64_t now = vk_wait_for_second(tick);
        tick = now + 1;
        if (now % k_report_period_s == 0)
            send_target_agent_info();
        if (now % k_execute_period_s == 0) {
            VK_SIGNAL_DEBUG(SIGNAL_DEBUG_COMMAND);
            reload_config_file(g_conf_handle, config_path);
            execute_command();
        }
    }
    return nullptr;
}
