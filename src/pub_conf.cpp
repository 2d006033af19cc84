// pub_conf: the configuration bootstrap (g_conf_handle and
// data/config) and the logging set-up with its periodic refresh. Called by main, the
// environment readers (olv_linux) and the main loop.
#include "pub_conf.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "global_var.h"
#include "hash2.h"
#include "util.h"
#include "vk_string.h"
#include "vklog.h"

configure_t *g_conf_handle = nullptr;

namespace
{

constexpr const char *k_agent_name = "quil-manager-agent";

struct config_deleter {
    void operator()(vklog_config_t *c) const { vklog_config_free(c); }
};
using unique_config = std::unique_ptr<vklog_config_t, config_deleter>;

void config_set(vklog_config_t *config, vklog_cfg_type_t key, const char *value)
{
    // A rejected value leaves the preset's setting in place, as the library documents.
    (void)vklog_config_set(config, key, static_cast<unsigned>(strlen(value)), value);
}

// The logging options as init_vklog and update_vklog read them.
struct log_options_t {
    char directory[512];
    char filename[512];
    char level[11]; // at most 10 characters
    char expanded[512];
};

// Reads options 1..3 and expands the directory. Returns convert_env_path's result.
int read_log_options(log_options_t *opts)
{
    memset(opts, 0, sizeof(*opts));
    get_conf_value_string_for_idx(g_conf_handle, MGR_CONF_LOG_DIRECTORY, opts->directory,
                                  sizeof(opts->directory));
    get_conf_value_string_for_idx(g_conf_handle, MGR_CONF_LOG_FILENAME, opts->filename,
                                  sizeof(opts->filename));
    get_conf_value_string_for_idx(g_conf_handle, MGR_CONF_LOG_LEVEL, opts->level, sizeof(opts->level));
    return convert_env_path(opts->directory, opts->expanded, sizeof(opts->expanded));
}

// Sets the level option; false when the library does not know the value (the level in
// force, or the preset's, stays).
bool set_log_level(vklog_config_t *config, const char *value)
{
    return vklog_config_set(config, VKLOG_CFG_TYPE_LEVEL, static_cast<unsigned>(strlen(value)), value) == 0;
}

// An MGR_LOG_LEVEL value the library does not know ("INFO" in capitals, say) is said at
// ERROR with the level in use, once per value: update_vklog comes by every 3 s. Main thread.
void report_log_level(const char *func, const char *value, bool known)
{
    static char s_reported[sizeof(log_options_t::level)] = "";
    static constexpr const char *names[] = {"none", "fatal", "error", "warn", "notice", "info", "debug", "trace"};
    if (known || strcmp(s_reported, value) == 0) {
        if (known)
            s_reported[0] = '\0';
        return;
    }
    vk_strlcpy(s_reported, value);
    vklog_t *log = g_vklog.load();
    if (log == nullptr)
        return;
    vklog_level_t used = log->level.load();
    VKLOG_ERROR(log, "[%s] unknown MGR_LOG_LEVEL value[%s]; the level used is [%c%s].\n", func, value,
                static_cast<char>(used.inequality_sign), names[used.value >= 0 && used.value < 8 ? used.value : 0]);
}

} // namespace


// ---- bootstrap ------------------------------------------------------------------

int initialize_configure_manager_agent(int debug)
{
    destroy_configure(g_conf_handle); // a second bootstrap (tests) starts from the presets
    g_conf_handle = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
    if (g_conf_handle == nullptr)
        return -1;
    char path[VK_PATH_SIZE + 32];
    snprintf(path, sizeof(path), "%s/data/%s", g_vk_manager_home, "config");
    struct stat st {
    };
    // Whatever is in the way (a link, a FIFO) is left alone; the load refuses it and says so.
    if (lstat(path, &st) != 0 && errno == ENOENT) {
        save_config_file(g_conf_handle, path);
        // The wording says the opposite of what happened; operators' scripts expect it.
        printf("[main] (%s) file already exists.\n", path);
    }
    load_config_file(g_conf_handle, path);
    int ret = init_vklog(debug);
    if (ret < 0) {
        printf("[main] init_vklog() has failed. (ret:%d)\n", ret);
        exit(0);
    }
    print_configure(g_conf_handle);
    return 0;
}

int init_vklog(int debug)
{
    log_options_t opts;
    int ret = read_log_options(&opts);
    if (ret < 0) {
        printf("[init_vklog] convert_env_path() has failed. (ret: %d)\n", ret);
        return -1;
    }
    unique_config config(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
    int err = 0;
    if (!config) {
        printf("[init_vklog] vklog_initialize_with_config() has failed. (ret:%d, error_no:%d)\n", -1, err);
        return -2;
    }
    config_set(config.get(), VKLOG_CFG_TYPE_NAME, k_agent_name);
    config_set(config.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "file");
    config_set(config.get(), VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME, "false");
    config_set(config.get(), VKLOG_CFG_TYPE_DIRECTORY, opts.expanded);
    config_set(config.get(), VKLOG_CFG_TYPE_FILENAME, opts.filename);
    bool level_known = set_log_level(config.get(), opts.level);
    ret = vklog_initialize_with_config(config.release(), &err); // takes the configuration
    if (ret != 0) {
        printf("[init_vklog] vklog_initialize_with_config() has failed. (ret:%d, error_no:%d)\n", ret, err);
        return -2;
    }
    vklog_t *cat = vklog_get_category(k_agent_name);
    if (cat == nullptr) {
        printf("[init_vklog] vklog_get_category() has failed.\n");
        return -3;
    }
    vklog_set_global_log_handle(cat);
    report_log_level("init_vklog", opts.level, level_known);
    if (debug == 0) {
        // Console debug lines then land in the log file.
        vklog_set_global_log_console_debug_handle(cat);
        return 0;
    }
    return init_vklog_debug_mode() < 0 ? -4 : 0;
}

int init_vklog_debug_mode()
{
    unique_config config(vklog_config_new());
    int err = 0;
    int ret = -1;
    if (config) {
        config_set(config.get(), VKLOG_CFG_TYPE_NAME, "debug-mode");
        config_set(config.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "stdout");
        config_set(config.get(), VKLOG_CFG_TYPE_LEVEL, "=trace");
        config_set(config.get(), VKLOG_CFG_TYPE_HEADER_FLAG, "time");
        (void)vklog_config_finish(config.get());
        ret = vklog_apply_config(config.release(), &err); // takes the configuration
    }
    if (ret != 0) {
        printf("[init_vklog_debug_mode] vklog_apply_config() has failed. (ret:%d, error_no:%d)\n", ret, err);
        return -1;
    }
    vklog_t *cat = vklog_get_category("debug-mode");
    if (cat == nullptr) {
        printf("[init_vklog_debug_mode] vklog_get_category() has failed.\n");
        return -2;
    }
    vklog_set_global_log_console_debug_handle(cat);
    return 0;
}

int update_vklog()
{
    log_options_t opts;
    int ret = read_log_options(&opts);
    if (ret < 0) {
        VKLOG_DEBUG(g_vklog.load(), "[update_vklog] convert_env_path() has failed. (ret: %d)\n", ret);
        return -1;
    }
    unique_config config(vklog_config_clone_from_global_log());
    if (!config) {
        VKLOG_DEBUG(g_vklog.load(), "[update_vklog] vklog_config_clone_from_global_log() has failed.\n");
        return -2;
    }
    struct stat st {
    };
    if (stat(opts.expanded, &st) == 0 && S_ISDIR(st.st_mode)) {
        config_set(config.get(), VKLOG_CFG_TYPE_DIRECTORY, opts.expanded);
    } else {
        VKLOG_ERROR(g_vklog.load(), "[update_vklog] directory does not exist. config[%s] convert[%s]\n",
                    opts.directory, opts.expanded);
    }
    config_set(config.get(), VKLOG_CFG_TYPE_FILENAME, opts.filename);
    bool level_known = set_log_level(config.get(), opts.level);
    (void)vklog_config_finish(config.get());
    int err = 0;
    ret = vklog_apply_config(config.release(), &err); // takes the configuration
    if (ret != 0) {
        VKLOG_DEBUG(g_vklog.load(), "[update_vklog] vklog_apply_config() has failed. (ret:%d, error_no:%d)\n",
                    ret, err);
        return -3;
    }
    report_log_level("update_vklog", opts.level, level_known);
    return 0;
}
