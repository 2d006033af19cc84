// configure: the manager option table behind g_conf_handle: presets, name index, the
// KEY=VALUE file (load, reload on mtime change, save through "<path>.tmp"), the update
// rule and the serialised form. Called by pub_conf, the main loop and the command thread.
#include "configure.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "vk_byteorder.h"
#include "vk_file.h"
#include "vk_string.h"
#include "vklog.h"
#include "vk_raii.h"

namespace
{

// Name index item: the 64-byte NUL-padded name is the map key (the item's first bytes);
// the position points back into the option array. The map owns and frees these records,
// so the options themselves are never freed through the index.
struct conf_index_item_t {
    char name[CONF_NAME_SIZE];
    int32_t idx;
};


// The option file steers a root agent's log: never through a link, only a regular file, and
// for root only one that root owns and no one else may write.
constexpr unsigned k_conf_open_rules = VK_OPEN_NOFOLLOW | VK_OPEN_ROOT_OWNED;

// One read of the file: at most 4095 characters.
constexpr int k_line_size = 4096;

// Position of the option called name, or -1. The index never changes after set_configure,
// so lookups need no lock.
int conf_find(const configure_t *handle, const char *name)
{
    char key[CONF_NAME_SIZE] = {};
    vk_strlcpy(key, name, sizeof(key));
    void *item = nullptr;
    if (map_lookup(&handle->index, key, sizeof(key), &item) != 1 || item == nullptr)
        return -1;
    return static_cast<const conf_index_item_t *>(item)->idx;
}

// atoi without undefined overflow: leading blanks, a sign, digits; clamped to int.
int conf_atoi(const char *text)
{
    if (text == nullptr)
        return 0;
    while (isspace(static_cast<unsigned char>(*text)))
        text++;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        text++;
    long long v = 0;
    for (; isdigit(static_cast<unsigned char>(*text)); text++)
        v = std::min(v * 10 + (*text - '0'), static_cast<long long>(INT_MAX) + 1);
    v = negative ? -v : v;
    return static_cast<int>(std::clamp(v, static_cast<long long>(INT_MIN), static_cast<long long>(INT_MAX)));
}

// The update rule. Returns 1 changed, 0 equal (nothing done), -1 allocation failure (old
// value kept). A longer value gets a new buffer; a shorter or equal one reuses the old one.
// Caller holds the write lock, or runs before the worker threads exist.
int conf_set_value(configure_t *handle, conf_option_t *opt, std::string_view value)
{
    if (opt->value != nullptr && value == std::string_view(opt->value, opt->value_len))
        return 0;
    if (value.size() > static_cast<size_t>(INT32_MAX - CONF_SERIAL_OVERHEAD))
        return -1;
    int32_t new_len = static_cast<int32_t>(value.size());
    if (opt->value == nullptr || new_len > opt->value_len) {
        char *buf = static_cast<char *>(malloc(value.size() + 1));
        if (buf == nullptr)
            return -1;
        memcpy(buf, value.data(), value.size());
        buf[new_len] = '\0';
        free(opt->value);
        opt->value = buf;
    } else {
        memset(opt->value, 0, opt->value_len);
        memcpy(opt->value, value.data(), value.size());
    }
    handle->serial_size += new_len - opt->value_len;
    opt->value_len = new_len;
    return 1;
}

// Whole-second mtime of path itself (not a link's target); 0 when it cannot be examined.
int64_t conf_file_mtime(const char *path)
{
    struct stat st {
    };
    return lstat(path, &st) == 0 ? static_cast<int64_t>(st.st_mtime) : 0;
}

// 1 when the file's mtime differs from *last (the new one is stored), else 0.
int isFileChange(const char *path, int64_t *last)
{
    int64_t now = conf_file_mtime(path);
    if (now == *last)
        return 0;
    *last = now;
    return 1;
}

// Splits one line into a terminated name (first 63 characters before "=", trimmed) and
// value (the rest, trimmed; it may hold further "="). Comments from "#" on are dropped.
// Returns false for a line without "=".
bool parse_conf_line(const char *line, char (&name)[CONF_NAME_SIZE], char (&value)[k_line_size])
{
    std::string_view text(line);
    text = text.substr(0, text.find('#'));
    size_t eq = text.find('=');
    if (eq == std::string_view::npos)
        return false;
    vk_strlcpy(name, vk_trim_view(text.substr(0, std::min<size_t>(eq, CONF_NAME_SIZE - 1))));
    vk_strlcpy(value, vk_trim_view(text.substr(eq + 1)));
    return true;
}

template <typename Fn> void for_each_conf_line(FILE *file, Fn apply)
{
    char line[k_line_size];
    char name[CONF_NAME_SIZE];
    char value[k_line_size];
    while (fgets(line, sizeof(line), file) != nullptr) {
        if (parse_conf_line(line, name, value))
            apply(name, value);
    }
}

} // namespace

// ---- creation ---------------------------------------------------------------

configure_t *create_configure(const void *preset_bytes, int size)
{
    auto *handle = new (std::nothrow) configure_t{};
    if (handle == nullptr)
        return nullptr;
    if (set_configure(handle, preset_bytes, size) < 0) {
        destroy_configure(handle);
        return nullptr;
    }
    return handle;
}

// Enters option idx into the name index; an item the map refuses is freed here.
static void conf_index_add(configure_t *handle, int idx)
{
    auto *item = static_cast<conf_index_item_t *>(calloc(1, sizeof(conf_index_item_t)));
    if (item == nullptr)
        return;
    memcpy(item->name, handle->options[idx].name, sizeof(item->name));
    item->idx = idx;
    if (map_setat(&handle->index, item->name, sizeof(item->name), item) < 0)
        free(item);
}

int set_configure(configure_t *handle, const void *preset_bytes, int size)
{
    if (handle == nullptr || preset_bytes == nullptr || handle->options != nullptr)
        return -1; // a filled handle would leak its options
    int count = size > 0 ? size / static_cast<int>(sizeof(conf_preset_t)) : 0;
    if (map_init(&handle->index, CONF_INDEX_BUCKETS, 0) != 0)
        return -2;
    if (count > 0) {
        handle->options = static_cast<conf_option_t *>(calloc(count, sizeof(conf_option_t)));
        if (handle->options == nullptr)
            return -2;
    }
    handle->count = count;
    const auto *presets = static_cast<const conf_preset_t *>(preset_bytes);
    for (int i = 0; i < count; i++) {
        conf_option_t &opt = handle->options[i];
        opt.type = presets[i].type;
        vk_strlcpy(opt.name, std::string_view(presets[i].name, strnlen(presets[i].name, CONF_NAME_SIZE)));
        size_t len = strnlen(presets[i].value, CONF_PRESET_VALUE_SIZE);
        opt.value = static_cast<char *>(malloc(len + 1));
        handle->serial_size += CONF_SERIAL_OVERHEAD;
        if (opt.value == nullptr)
            continue;
        memcpy(opt.value, presets[i].value, len);
        opt.value[len] = '\0';
        opt.value_len = static_cast<int32_t>(len);
        handle->serial_size += opt.value_len;
        conf_index_add(handle, i);
    }
    return 0;
}

void destroy_configure(configure_t *handle)
{
    if (handle == nullptr)
        return;
    map_destroy(&handle->index);
    for (int i = 0; i < handle->count; i++)
        free(handle->options[i].value);
    free(handle->options);
    delete handle;
}

// ---- the file ---------------------------------------------------------------

int load_config_file(configure_t *handle, const char *path)
{
    if (handle == nullptr || path == nullptr)
        return -1;
    vk_unique_file file(vk_fopen_read(path, k_conf_open_rules, "load_config_file"));
    if (!file) {
        VKLOG_INFO(g_vklog.load(), "[load_config_file] File(%s) open Failed(%d)\n", path, errno);
        return -2;
    }
    for_each_conf_line(file.get(), [handle](const char *name, const char *value) {
        int idx = conf_find(handle, name);
        if (idx < 0)
            return;
        std::unique_lock guard(handle->lock);
        conf_option_t &opt = handle->options[idx];
        conf_set_value(handle, &opt, value);
        VKLOG_INFO(g_vklog.load(), "[load_config_file] option[%s] value[%s] tmp[%s]\n", opt.name,
                   opt.value != nullptr ? opt.value : "", value);
    });
    handle->last_write_time = conf_file_mtime(path);
    return 0;
}

int reload_config_file(configure_t *handle, const char *path)
{
    if (handle == nullptr || path == nullptr)
        return -1;
    if (isFileChange(path, &handle->last_write_time) == 0)
        return -2;
    vk_unique_file file(vk_fopen_read(path, k_conf_open_rules, "reload_config_file"));
    if (!file) {
        VKLOG_INFO(g_vklog.load(), "[reload_config_file] File(%s) open failed [errno: %d]\n", path, errno);
        return -3;
    }
    for_each_conf_line(file.get(), [handle](const char *name, const char *value) {
        int ret = update_conf_value_for_key(handle, name, value, static_cast<int>(strlen(value)));
        if (ret < 0)
            VKLOG_INFO(g_vklog.load(), "[reload_config_file] %s option reload failed [ret: %d]\n", name, ret);
    });
    return 0;
}

int save_config_file(configure_t *handle, const char *path)
{
    if (handle == nullptr || path == nullptr)
        return -1;
    std::shared_lock guard(handle->lock);
    // serial_size counts each value plus 80 bytes, more than a name, "=" and "\n" take.
    size_t size = static_cast<size_t>(std::max(handle->serial_size, 0)) + 1;
    vk_unique_malloc<char> text(static_cast<char *>(malloc(size)));
    if (!text)
        return -2;
    size_t used = 0;
    for (int i = 0; i < handle->count && used < size; i++) {
        const conf_option_t &opt = handle->options[i];
        int n = snprintf(text.get() + used, size - used, "%s=%s\n", opt.name,
                         opt.value != nullptr ? opt.value : "");
        used += n > 0 ? static_cast<size_t>(n) : 0;
    }
    guard.unlock();
    if (used >= size)
        return -2;
    // A short write must not replace a good file; a failing rename is not reported.
    int ret = vk_write_file_atomic(path, text.get(), used, 0666);
    return ret == -1 || ret == -2 || ret == -3 ? -2 : 0;
}

// ---- readers and updaters ---------------------------------------------------

int get_config_count(configure_t *handle)
{
    return handle != nullptr ? handle->count : -1;
}

int get_conf_value_string_for_idx(configure_t *handle, int idx, char *dest, int size)
{
    if (handle == nullptr || dest == nullptr || size <= 0)
        return -1;
    if (handle->count <= 0 || handle->options == nullptr)
        return -2;
    if (idx < 0 || idx >= handle->count)
        return -3;
    std::shared_lock guard(handle->lock);
    vk_strlcpy(dest, handle->options[idx].value, static_cast<size_t>(size));
    return 0;
}

int get_conf_value_int_for_idx(configure_t *handle, int idx)
{
    if (handle == nullptr || handle->count <= 0 || handle->options == nullptr || idx < 0 ||
        idx >= handle->count)
        return CONF_INT_ERROR;
    // Shared lock although the main loop reads this every second: a reload rewrites the
    // buffer in place, and a read during that would see a mixture of old and new digits.
    std::shared_lock guard(handle->lock);
    return conf_atoi(handle->options[idx].value);
}

int get_conf_value_string_for_key(configure_t *handle, const char *name, char *dest, int size)
{
    if (handle == nullptr || dest == nullptr || size <= 0)
        return -1;
    if (handle->count <= 0 || handle->options == nullptr)
        return -2;
    if (name == nullptr)
        return -3;
    int idx = conf_find(handle, name);
    if (idx < 0)
        return -4;
    std::shared_lock guard(handle->lock);
    vk_strlcpy(dest, handle->options[idx].value, static_cast<size_t>(size));
    return idx;
}

int get_conf_value_int_for_key(configure_t *handle, const char *name)
{
    if (handle == nullptr || handle->count <= 0 || handle->options == nullptr || name == nullptr)
        return CONF_INT_ERROR;
    int idx = conf_find(handle, name);
    if (idx < 0)
        return CONF_INT_ERROR;
    std::shared_lock guard(handle->lock);
    return conf_atoi(handle->options[idx].value);
}

int update_conf_value_for_key(configure_t *handle, const char *name, const char *value, int len)
{
    if (handle == nullptr)
        return -1;
    if (handle->count <= 0 || handle->options == nullptr)
        return -2;
    if (name == nullptr || value == nullptr)
        return 0;
    int idx = conf_find(handle, name);
    if (idx < 0 || handle->options[idx].type != CONF_TYPE_UPDATABLE)
        return 0;
    std::string_view text(value, len > 0 ? strnlen(value, static_cast<size_t>(len)) : 0);
    std::unique_lock guard(handle->lock);
    conf_option_t &opt = handle->options[idx];
    if (opt.value != nullptr && text == std::string_view(opt.value, opt.value_len))
        return 0;
    char new_text[k_line_size];
    vk_strlcpy(new_text, text);
    VKLOG_INFO(g_vklog.load(), "[update_conf_value_for_key] update option[%s] : [%s] -> [%s]\n", opt.name,
               opt.value != nullptr ? opt.value : "", new_text);
    conf_set_value(handle, &opt, text);
    return 0;
}

int update_conf_value_for_idx(configure_t *handle, int idx, const char *value, int len)
{
    if (handle == nullptr || value == nullptr)
        return -1;
    if (handle->count <= 0 || handle->options == nullptr)
        return -2;
    if (idx < 0 || idx >= handle->count)
        return -3;
    if (handle->options[idx].type != CONF_TYPE_UPDATABLE)
        return -4;
    std::string_view text(value, len > 0 ? strnlen(value, static_cast<size_t>(len)) : 0);
    std::unique_lock guard(handle->lock);
    conf_option_t &opt = handle->options[idx];
    if (conf_set_value(handle, &opt, text) > 0)
        VKLOG_INFO(g_vklog.load(), "[update_conf_value_for_idx] update option[%s], value[%s]\n", opt.name,
                   opt.value);
    return 0;
}

// ---- serialised form and listing ---------------------------------------------

int get_conf_serialization(configure_t *handle, char **out_buffer)
{
    if (handle == nullptr || out_buffer == nullptr)
        return -1;
    std::shared_lock guard(handle->lock);
    if (handle->count <= 0 || handle->options == nullptr || handle->serial_size < 1)
        return -2;
    // serial_size counts 80 bytes per option while a record takes 68: the buffer is larger
    // than what is written and the tail stays zero.
    auto *buf = static_cast<unsigned char *>(calloc(static_cast<size_t>(handle->serial_size) + 2, 1));
    if (buf == nullptr)
        return -3;
    put_be16(buf, static_cast<uint32_t>(handle->count));
    unsigned char *p = buf + 2;
    for (int i = 0; i < handle->count; i++) {
        const conf_option_t &opt = handle->options[i];
        memcpy(p, opt.name, CONF_NAME_SIZE);
        put_be32(p + CONF_NAME_SIZE, static_cast<uint32_t>(opt.value_len));
        p += CONF_NAME_SIZE + 4;
        if (opt.value != nullptr && opt.value_len > 0)
            memcpy(p, opt.value, opt.value_len);
        p += opt.value_len;
    }
    *out_buffer = reinterpret_cast<char *>(buf);
    return handle->serial_size;
}

void print_configure(configure_t *handle)
{
    if (handle == nullptr)
        return;
    std::shared_lock guard(handle->lock);
    for (int i = 0; i < handle->count; i++) {
        const conf_option_t &opt = handle->options[i];
        if (opt.value != nullptr)
            VKLOG_INFO(g_vklog.load(), "[print_configure] config %s=[%s]\n", opt.name, opt.value);
    }
}
