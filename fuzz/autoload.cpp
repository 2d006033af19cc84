// libFuzzer target for the autoload list and the id-file reader: the input is
// <home>/manager/data/autoload_conf of a private home. init_auto_load must store what a
// model of its reads says (512-byte reads, each trimmed and cut at 255 characters, at most
// 64), then every stored path goes through set_agent_id_to_list (most point nowhere), and
// the input's first 64 bytes, written as an id file of the home, must register with the id
// a model of the first-line read gives (at most 39 characters, cut at 36, without its line
// end), or be refused with -4 when that id is not valid UTF-8.
#include "fuzz_support.h"
#include "global_var.h"
#include "util.h"
#include "vk_string.h"

#include <mutex>
#include <string_view>

namespace
{

constexpr size_t k_read_size = 511;   // characters of one autoload read
constexpr size_t k_id_read_size = 39; // characters of the id-file read
constexpr size_t k_id_file_bytes = 64;

std::string_view first_read(std::string_view text, size_t limit)
{
    size_t newline = text.find('\n');
    return text.substr(0, std::min(newline == std::string_view::npos ? text.size() : newline + 1, limit));
}

std::string_view cut_at_nul(std::string_view text)
{
    return text.substr(0, text.find('\0'));
}

std::string_view trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n\v\f";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void check_autoload_list(std::string_view file)
{
    int count = 0;
    for (; !file.empty() && count < MAX_AGENT_COUNT; count++) {
        std::string_view line = first_read(file, k_read_size);
        file.remove_prefix(line.size());
        std::string_view path = trim(cut_at_nul(line)).substr(0, AUTO_LOAD_PATH_LEN);
        FUZZ_CHECK(path == g_vk_auto_load_path[count]);
    }
    FUZZ_CHECK(g_auto_load_count == count);
}

// Records are distinct and terminated. Caller holds g_json_lock.
void check_registry()
{
    FUZZ_CHECK(g_json_agent_count >= 0 && g_json_agent_count <= MAX_AGENT_COUNT);
    for (int i = 0; i < g_json_agent_count; i++) {
        const char *id = g_json_agent_info[i].agent_id;
        FUZZ_CHECK(strnlen(id, sizeof(g_json_agent_info[i].agent_id)) <= AGENT_ID_LEN);
        for (int j = 0; j < i; j++)
            FUZZ_CHECK(strcmp(id, g_json_agent_info[j].agent_id) != 0);
    }
}

} // namespace

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
    check_autoload_list(input);

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
    std::string_view id = cut_at_nul(first_read(id_bytes, k_id_read_size).substr(0, AGENT_ID_LEN));
    id = id.substr(0, id.find_first_of("\r\n"));
    if (idx == -4) {
        FUZZ_CHECK(!vk_is_utf8(id) && g_json_agent_count == before);
        return 0;
    }
    if (idx == -3) { // only a full registry without this id refuses it
        FUZZ_CHECK(before == MAX_AGENT_COUNT && g_json_agent_count == before);
        for (int i = 0; i < before; i++)
            FUZZ_CHECK(id != g_json_agent_info[i].agent_id);
        return 0;
    }
    FUZZ_CHECK(idx >= 0 && idx < g_json_agent_count && id == g_json_agent_info[idx].agent_id);
    FUZZ_CHECK(g_json_agent_count == (idx == before ? before + 1 : before));
    return 0;
}
