// libFuzzer target for the option file reader load_config_file: the input is data/config.
// A fresh table from the manager presets loads it, and the result must match a model of
// the line rules (reads of at most 4095 characters, "#" comments, name before the first
// "=" cut at 63 characters, both sides trimmed, unknown names ignored), with each value's
// length recorded; a saved table must load back to the same values when its lines fit.
// The serialised form and the lookups by name, which nothing in the agent uses, are the
// configure unit test's part.
#include "configure.h"
#include "fuzz_support.h"
#include "pub_conf.h"

#include <string_view>

namespace
{

constexpr size_t k_read_size = 4095; // characters taken by one read of the file
constexpr std::string_view k_blanks = " \t\r\n\v\f";

std::string_view trim(std::string_view text)
{
    size_t first = text.find_first_not_of(k_blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(k_blanks) - first + 1);
}

// The values the file should leave, starting from the presets.
void model_load(std::string_view file, std::string (&values)[MGR_CONF_COUNT])
{
    for (int i = 0; i < MGR_CONF_COUNT; i++)
        values[i] = g_manager_conf_preset[i].value;
    while (!file.empty()) {
        size_t newline = file.find('\n');
        size_t take = std::min(newline == std::string_view::npos ? file.size() : newline + 1, k_read_size);
        std::string_view line = file.substr(0, take);
        file.remove_prefix(take);
        line = line.substr(0, line.find('\0'));
        line = line.substr(0, line.find('#'));
        size_t eq = line.find('=');
        if (eq == std::string_view::npos)
            continue;
        std::string_view name = trim(line.substr(0, std::min<size_t>(eq, CONF_NAME_SIZE - 1)));
        for (int i = 0; i < MGR_CONF_COUNT; i++)
            if (name == g_manager_conf_preset[i].name)
                values[i] = trim(line.substr(eq + 1));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string dir = fuzz_support::temp_dir("option_file");
    static const std::string config_path = dir + "/config";
    static const std::string saved_path = dir + "/saved";

    fuzz_support::write_file(config_path, data, size);
    configure_t *handle = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
    FUZZ_CHECK(handle != nullptr);
    FUZZ_CHECK(load_config_file(handle, config_path.c_str()) == 0);

    std::string expected[MGR_CONF_COUNT];
    model_load(std::string_view(reinterpret_cast<const char *>(data), size), expected);
    bool lines_fit = true;
    for (int i = 0; i < MGR_CONF_COUNT; i++) {
        const conf_option_t &opt = handle->options[i];
        FUZZ_CHECK(opt.value != nullptr && strlen(opt.value) == static_cast<size_t>(opt.value_len));
        FUZZ_CHECK(expected[i] == opt.value);
        lines_fit = lines_fit && strlen(opt.name) + 1 + expected[i].size() + 1 <= k_read_size;
    }

    // What is saved loads back unchanged as long as no line needs two reads.
    FUZZ_CHECK(save_config_file(handle, saved_path.c_str()) == 0);
    if (lines_fit) {
        configure_t *again = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
        FUZZ_CHECK(again != nullptr);
        FUZZ_CHECK(load_config_file(again, saved_path.c_str()) == 0);
        for (int i = 0; i < MGR_CONF_COUNT; i++)
            FUZZ_CHECK(strcmp(again->options[i].value, handle->options[i].value) == 0);
        destroy_configure(again);
    }
    destroy_configure(handle);
    return 0;
}
