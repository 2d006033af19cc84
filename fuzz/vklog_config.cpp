// libFuzzer target for the vklog configuration file: the input is the file given to
// vklog_initialize_with_config_file. The load must succeed or be refused whole with one of
// its three codes (-12/-13/-14), a loaded file must leave at most 12 categories with distinct
// names, and every configuration in force must be finished: terminated texts,
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

    // A load succeeds or is refused whole (an unclosed section, an overlong value, a bad
    // level); a loaded file leaves at most 12 categories, one per distinct section name.
    FUZZ_CHECK(rc == 0 || rc == -12 || rc == -13 || rc == -14);
    const size_t count = g_vklog_manager.count.load();
    FUZZ_CHECK(count <= VL_MAX_CATEGORY && (rc == 0 || count == 0));
    std::vector<std::string_view> names;
    for (size_t i = 0; i < count; i++) {
        const vklog_t &cat = g_vklog_manager.log[i];
        FUZZ_CHECK(cat.config != nullptr);
        check_config(cat, *cat.config);
        FUZZ_CHECK(std::find(names.begin(), names.end(), cat.config->name) == names.end());
        names.emplace_back(cat.config->name);
    }
    vklog_fini();
    return 0;
}
