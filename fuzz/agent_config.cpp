// libFuzzer target for parse_agent_config_file: the input is data/agent_config.json of a
// private manager home; the registry is emptied before each input. The result must follow
// the input (-6 for an empty file, -7 exactly when cJSON refuses the text, else the record
// count), the records must be distinct terminated ids, and the command prefix must be the
// last string "custom_prefix" under "common_option", cut at 511 characters.
// The paths in the input name id files: seeds use /proc/sys/kernel/random/boot_id (the
// same id every time) and /proc/sys/kernel/random/uuid (a new one on every read).
#include "fuzz_support.h"
#include "global_var.h"
#include "util.h"

#include <cjson/cJSON.h>

#include <mutex>
#include <string>

namespace
{

// The prefix the agent should keep: the last string "custom_prefix" of a child of a
// "common_option" member, cut at 511 characters; empty when there is none.
std::string expected_prefix(const cJSON *root)
{
    std::string prefix;
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, root)
    {
        if (member->string == nullptr || strcmp(member->string, "common_option") != 0)
            continue;
        const cJSON *child = nullptr;
        cJSON_ArrayForEach(child, member)
        {
            const cJSON *text = cJSON_GetObjectItemCaseSensitive(child, "custom_prefix");
            if (cJSON_IsString(text) && text->valuestring != nullptr)
                prefix = std::string(text->valuestring).substr(0, JSON_PREFIX_OPTION_SIZE - 1);
        }
    }
    return prefix;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string json_path = [] {
        const std::string &home = fuzz_support::temp_dir("agent_config");
        fuzz_support::detach_stdin();
        FUZZ_CHECK(init_global_var(home.c_str()) == 0);
        fuzz_support::make_dir(home + "/manager");
        fuzz_support::make_dir(home + "/manager/data");
        return home + "/manager/data/agent_config.json";
    }();

    {
        std::lock_guard<vklock_t> hold(g_json_lock);
        g_json_agent_count = 0;
    }
    fuzz_support::write_file(json_path, data, size);
    const int rc = parse_agent_config_file();

    std::string text(reinterpret_cast<const char *>(data), size);
    cJSON *root = cJSON_Parse(text.c_str()); // the agent parses up to the first NUL as well
    std::lock_guard<vklock_t> hold(g_json_lock);
    if (size == 0) {
        FUZZ_CHECK(rc == -6);
    } else if (root == nullptr) {
        FUZZ_CHECK(rc == -7);
    } else {
        FUZZ_CHECK(rc >= 0 && rc == g_json_agent_count);
        FUZZ_CHECK(TERMINATED(g_json_prefix_option) && expected_prefix(root) == g_json_prefix_option);
        fuzz_support::check_registry();
    }
    cJSON_Delete(root);
    return 0;
}
