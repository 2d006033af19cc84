// libFuzzer target for the autoload list and the id-file reader: the input is
// <home>/manager/data/autoload_conf of a private home. Checked after init_auto_load: at most
// 64 paths, none only for an empty file, each terminated, at most 255 characters, without a
// line end or surrounding white space (trimmed before the cut at 255), and found in the file in
// order. Every stored path then goes through set_agent_id_to_list (most point nowhere), and the
// input's first 64 bytes, written as an id file, must register as the start of its first line
// (at most 36 characters, no line end), be refused as not UTF-8 (-4), or be refused only by a
// full registry; the registry stays distinct and bounded.
#include "fuzz_support.h"
#include "global_var.h"
#include "util.h"
#include "vk_string.h"

#include <mutex>

constexpr size_t k_id_file_bytes = 64;

using fuzz_support::check_registry;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string home = [] {
        const std::string &dir = fuzz_support::temp_dir("autoload");
        fuzz_support::detach_stdin();
        FUZZ_CHECK(init_global_var(dir.c_str()) == 0);
        fuzz_support::make_dir(dir + "/manager");
        fuzz_support::make_dir(dir + "/manager/data");
        return dir;
    }();
    static const std::string list_path = home + "/manager/data/autoload_conf";
    static const std::string id_path = home + "/agent_id";

    const std::string_view input(reinterpret_cast<const char *>(data), size);
    fuzz_support::write_file(list_path, data, size);
    FUZZ_CHECK(init_auto_load(home.c_str()) == 0);
    FUZZ_CHECK(g_auto_load_count >= 0 && g_auto_load_count <= MAX_AGENT_COUNT && (g_auto_load_count == 0) == input.empty());
    constexpr std::string_view blanks = " \t\r\n\v\f";
    for (size_t i = 0, at = 0; i < static_cast<size_t>(g_auto_load_count); i++) {
        FUZZ_CHECK(strnlen(g_vk_auto_load_path[i], AUTO_LOAD_PATH_SIZE) < AUTO_LOAD_PATH_SIZE);
        const std::string_view path(g_vk_auto_load_path[i]);
        FUZZ_CHECK(path.size() <= AUTO_LOAD_PATH_LEN && path.find('\n') == std::string_view::npos);
        FUZZ_CHECK(path.empty() || (blanks.find(path.front()) == std::string_view::npos &&
                                    (path.size() == AUTO_LOAD_PATH_LEN || // trimmed before the cut
                                     blanks.find(path.back()) == std::string_view::npos)));
        at = input.find(path, at);
        FUZZ_CHECK(at != std::string_view::npos);
        at += path.size();
    }

    const std::string_view id_bytes = input.substr(0, k_id_file_bytes);
    fuzz_support::write_file(id_path, id_bytes.data(), id_bytes.size());
    std::lock_guard<vklock_t> hold(g_json_lock);
    g_json_agent_count = 0;
    for (int i = 0; i < g_auto_load_count; i++) {
        int idx = set_agent_id_to_list(g_vk_auto_load_path[i]);
        FUZZ_CHECK(idx >= -4 && idx < MAX_AGENT_COUNT);
    }
    check_registry();

    const int before = g_json_agent_count;
    const int idx = set_agent_id_to_list(id_path.c_str());
    check_registry();
    if (id_bytes.empty()) {
        FUZZ_CHECK(idx == -2 && g_json_agent_count == before);
        return 0;
    }
    if (idx == -4) { // not text: left out
        FUZZ_CHECK(g_json_agent_count == before);
        return 0;
    }
    if (idx == -3) { // only a full registry refuses an id
        FUZZ_CHECK(before == MAX_AGENT_COUNT && g_json_agent_count == before);
        return 0;
    }
    FUZZ_CHECK(idx >= 0 && idx < g_json_agent_count);
    FUZZ_CHECK(g_json_agent_count == (idx == before ? before + 1 : before));
    const std::string_view id(g_json_agent_info[idx].agent_id);
    FUZZ_CHECK(input.starts_with(id) && id.find_first_of("\r\n") == std::string_view::npos && vk_is_utf8(id));
    return 0;
}
