// libFuzzer target for the vklog configuration file: the input is the file given to
// vklog_initialize_with_config_file. Its result must match a model of the file rules
// ("[name]" sections, "key = value" lines, "#" comments, lines kept to 4096 bytes, the
// three refusals -12/-13/-14), a loaded file must leave exactly one category per distinct
// section name (at most 12) and every configuration in force finished: terminated texts,
// paths built from directory and file name, a port, no execute bits. vklog_fini resets
// the library after each input.
//
// Applying a section twice with a new backup count removes surplus backups, which may be
// named by any directory the input or the environment spells. The target therefore owns
// unlink: it removes only inside its temporary directory and refuses everything else.
#include "fuzz_support.h"
#include "vklog.h"
#include "vklog_internal.h"

#include <algorithm>
#include <climits>
#include <string_view>
#include <vector>

namespace
{

std::string s_dir_real; // the temporary directory, resolved

} // namespace

// Removes path when its directory lies inside the temporary directory; else EACCES.
extern "C" int unlink(const char *path)
{
    if (s_dir_real.empty()) {
        errno = EACCES;
        return -1;
    }
    std::string parent(path);
    size_t slash = parent.rfind('/');
    parent = slash == std::string::npos ? "." : parent.substr(0, slash + 1);
    char resolved[PATH_MAX];
    if (realpath(parent.c_str(), resolved) == nullptr ||
        (std::string(resolved) + "/").compare(0, s_dir_real.size() + 1, s_dir_real + "/") != 0) {
        errno = EACCES;
        return -1;
    }
    return unlinkat(AT_FDCWD, path, 0);
}

namespace
{

constexpr size_t k_line_keep = 4096;   // bytes of a line the loader looks at
constexpr size_t k_value_limit = 1023; // a value this long or longer refuses the file

std::string_view trim(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view cut_at_nul(std::string_view text)
{
    return text.substr(0, text.find('\0'));
}

bool level_valid(std::string_view text)
{
    if (!text.empty() && (text[0] == '<' || text[0] == '=' || text[0] == '>'))
        text.remove_prefix(1);
    for (std::string_view name : {"fatal", "error", "warn", "notice", "info", "debug", "trace"})
        if (text == name)
            return true;
    return false;
}

// The load's result for the file, and the section names in file order.
int model_load(std::string_view file, std::vector<std::string> *sections)
{
    while (!file.empty()) {
        size_t newline = file.find('\n');
        std::string_view line = file.substr(0, newline == std::string_view::npos ? file.size() : newline + 1);
        file.remove_prefix(line.size());
        line = trim(line.substr(0, k_line_keep));
        line = trim(line.substr(0, line.find('#')));
        if (line.empty())
            continue;
        if (line[0] == '[') {
            size_t close = line.find(']');
            if (close == std::string_view::npos)
                return -12;
            std::string_view name = cut_at_nul(trim(line.substr(1, close - 1)).substr(0, 127));
            sections->emplace_back(name);
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string_view::npos || sections->empty())
            continue;
        std::string_view value = trim(line.substr(eq + 1));
        if (value.size() >= k_value_limit)
            return -13;
        if (trim(line.substr(0, eq)) == "level" && !level_valid(cut_at_nul(value)))
            return -14;
    }
    return 0;
}

// A configuration in force must be finished and its texts terminated.
void check_config(const vklog_t &cat, const vklog_config_t &config)
{
    FUZZ_CHECK(TERMINATED(config.name) && TERMINATED(config.out_file) && TERMINATED(config.out_dir) &&
               TERMINATED(config.backup_dir) && TERMINATED(config.vklogger_ip) && TERMINATED(config.out_path) &&
               TERMINATED(config.backup_path));
    FUZZ_CHECK(config.name_len == strlen(config.name));
    FUZZ_CHECK(config.out_file_len == strlen(config.out_file) && config.out_file_len > 0);
    const std::string out_path = (config.out_dir[0] != '\0' ? std::string(config.out_dir) + "/" : "") + config.out_file;
    FUZZ_CHECK(out_path == config.out_path);
    FUZZ_CHECK((config.backup_dir[0] != '\0' ? std::string(config.backup_dir) + "/" + config.out_file : out_path) ==
               config.backup_path);
    FUZZ_CHECK(config.vklogger_port != 0 && (config.file_permission & 0111u) == 0);
    FUZZ_CHECK(config.out_dir[0] == '\0' || config.limit_size != 0);
    FUZZ_CHECK(config.level.value >= VKLOG_LEVEL_FATAL && config.level.value <= VKLOG_LEVEL_TRACE);
    FUZZ_CHECK(std::string_view("<=>").find(static_cast<char>(config.level.inequality_sign)) !=
               std::string_view::npos);
    vklog_level_t level = cat.level.load();
    FUZZ_CHECK(level.value == config.level.value && level.inequality_sign == config.level.inequality_sign);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string dir = [] {
        const std::string &d = fuzz_support::temp_dir("vklog_config");
        char resolved[PATH_MAX];
        FUZZ_CHECK(realpath(d.c_str(), resolved) != nullptr);
        s_dir_real = resolved;
        // Directories the input can name through ${...}.
        setenv("QUIL_FUZZ_LOG_DIR", (d + "/log").c_str(), 1);
        setenv("QUIL_FUZZ_BACKUP_DIR", (d + "/backup").c_str(), 1);
        fuzz_support::make_dir(d + "/log");
        fuzz_support::make_dir(d + "/backup");
        return d;
    }();
    static const std::string path = dir + "/vklog.conf";

    // Backups for a section applied twice with a lower count to remove.
    for (const char *backup : {"/backup/quil.log.1", "/backup/quil.log.2", "/backup/quil.log.3"})
        if (access((dir + backup).c_str(), F_OK) != 0)
            fuzz_support::write_file(dir + backup, "", 0);
    fuzz_support::write_file(path, data, size);
    int err = 0;
    const int rc = vklog_initialize_with_config_file(path.c_str(), &err);

    std::vector<std::string> sections;
    FUZZ_CHECK(rc == model_load(std::string_view(reinterpret_cast<const char *>(data), size), &sections));
    std::vector<std::string> categories; // distinct names, first appearance first
    if (rc == 0)
        for (const std::string &name : sections)
            if (categories.size() < VL_MAX_CATEGORY &&
                std::find(categories.begin(), categories.end(), name) == categories.end())
                categories.push_back(name);

    FUZZ_CHECK(g_vklog_manager.count.load() == categories.size());
    for (size_t i = 0; i < categories.size(); i++) {
        const vklog_t &cat = g_vklog_manager.log[i];
        FUZZ_CHECK(cat.config != nullptr && categories[i] == cat.config->name);
        check_config(cat, *cat.config);
    }
    vklog_fini();
    return 0;
}
