// vklog_config: logging configurations: presets, key/value settings, finishing (paths and
// defaults), copies of a category's configuration for editing, and the configuration file
// loader. Called by programs through vklog.h and by the category code in vklog.
// A configuration being edited belongs to one thread; clones of live ones are taken under
// the category's lock.
#include "vklog_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr unsigned int s_default_permission = 0640;
constexpr unsigned int s_max_permission = 0777;
constexpr size_t s_output_word_limit = 31;
constexpr size_t s_conf_line_size = 4096;
constexpr size_t s_conf_value_limit = 1023;

// ---- presets --------------------------------------------------------------
struct vl_preset_t {
    const char *name;
    const char *out_dir;
    const char *out_file;
    unsigned int file_permission;
    uint8_t output;
    unsigned int header_flag;
    char include_us_to_time;
    vklog_level_t level;
    unsigned int limit_size;
    unsigned int backup_count;
};

constexpr unsigned int s_header_default = VKLOG_HEADER_TIME | VKLOG_HEADER_PID | VKLOG_HEADER_LEVEL; // 67

constexpr vl_preset_t s_presets[] = {
    {"", "", "", 0, 0, 0, 0, {0, 0}, 0, 0},
    {"default config", "", "", 0640, 0, s_header_default, 1, {VKLOG_LEVEL_ERROR, '<'}, 10, 5},
    {"default file config",
     "log",
     "quil_default.log",
     0640,
     VKLOG_OUTPUT_FILE,
     s_header_default,
     1,
     {VKLOG_LEVEL_INFO, '<'},
     10,
     3},
};

void vl_apply_preset(vklog_config_t *config, const vl_preset_t &preset)
{
    config->name_len = static_cast<unsigned int>(vl_copy(config->name, sizeof(config->name), preset.name));
    vl_copy(config->out_dir, sizeof(config->out_dir), preset.out_dir);
    config->out_file_len =
        static_cast<unsigned int>(vl_copy(config->out_file, sizeof(config->out_file), preset.out_file));
    config->file_permission = preset.file_permission;
    config->output = preset.output;
    config->header_flag = preset.header_flag;
    config->include_us_to_time = preset.include_us_to_time;
    config->level = preset.level;
    config->limit_size = preset.limit_size;
    config->backup_count = preset.backup_count;
}

// ---- levels and word lists ------------------------------------------------
constexpr const char *s_level_names[8] = {"none",   "fatal", "error", "warn",
                                          "notice", "info",  "debug", "trace"};

struct vl_word_flag_t {
    std::string_view word;
    unsigned int flag;
};

constexpr vl_word_flag_t s_output_words[] = {
    {"file", VKLOG_OUTPUT_FILE},
    {"stdout", VKLOG_OUTPUT_STDOUT},
    {"stderr", VKLOG_OUTPUT_STDERR},
    {"vklogger", VKLOG_OUTPUT_VKLOGGER},
};

constexpr vl_word_flag_t s_header_words[] = {
    {"time", VKLOG_HEADER_TIME},   {"pid", VKLOG_HEADER_PID},           {"thread_id", VKLOG_HEADER_THREAD_ID},
    {"file", VKLOG_HEADER_FILE},   {"function", VKLOG_HEADER_FUNCTION}, {"line", VKLOG_HEADER_LINE},
    {"level", VKLOG_HEADER_LEVEL},
};

bool vl_word_equal(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// OR of the flags of a comma list. Unknown words make it fail when `strict`, else are skipped.
template <size_t N>
bool vl_parse_word_list(std::string_view text, const vl_word_flag_t (&table)[N], bool strict,
                        unsigned int *flags)
{
    unsigned int result = 0;
    while (!text.empty()) {
        size_t comma = text.find(',');
        std::string_view word = vl_trim(text.substr(0, comma));
        text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
        if (word.empty())
            continue;
        bool known = false;
        for (const vl_word_flag_t &entry : table) {
            if (vl_word_equal(word, entry.word)) {
                result |= entry.flag;
                known = true;
            }
        }
        if (!known && strict)
            return false;
    }
    *flags = result;
    return true;
}

// ---- one key each -----------------------------------------------------------
int vl_set_directory(char *dest, size_t size, std::string_view value, int key)
{
    char expanded[sizeof(vklog_config_t::out_dir)];
    if (vklog_convert_string_Environment(value, expanded, sizeof(expanded)) != 0 || strlen(expanded) >= size)
        return key;
    vl_copy(dest, size, expanded);
    return 0;
}

int vl_set_output(vklog_config_t *config, std::string_view value)
{
    unsigned int flags = 0;
    if (!vl_parse_word_list(value.substr(0, s_output_word_limit), s_output_words, true, &flags))
        return VKLOG_CFG_TYPE_OUTPUT_TYPE;
    config->output = static_cast<uint8_t>(flags);
    return 0;
}

void vl_set_permission(vklog_config_t *config, std::string_view value)
{
    bool whole = false;
    unsigned long mode = vl_parse_unsigned(vl_trim(value), 8, &whole);
    config->file_permission =
        (!whole || mode == 0 || mode > s_max_permission) ? s_default_permission : static_cast<unsigned>(mode);
}

int vl_set_level(vklog_config_t *config, std::string_view value)
{
    vklog_level_t level{};
    if (vl_parse_level(value, &level) != 0)
        return VKLOG_CFG_TYPE_LEVEL;
    config->level = level;
    return 0;
}

int vl_set_text(char *dest, size_t size, unsigned int *len, std::string_view value, int key)
{
    if (value.size() >= size)
        return key;
    size_t copied = vl_copy(dest, size, value);
    if (len != nullptr)
        *len = static_cast<unsigned int>(copied);
    return 0;
}

unsigned int vl_to_uint(std::string_view value)
{
    unsigned long v = vl_parse_unsigned(vl_trim(value), 10, nullptr);
    return v > 0xFFFFFFFFul ? 0xFFFFFFFFu : static_cast<unsigned int>(v);
}

} // namespace

// ---- levels -------------------------------------------------------------------
const char *vl_level_name(int value)
{
    return value >= 0 && value < 8 ? s_level_names[value] : "none";
}

int vl_parse_level(std::string_view text, vklog_level_t *level)
{
    int sign = '<';
    if (!text.empty() && (text[0] == '<' || text[0] == '=' || text[0] == '>')) {
        sign = text[0];
        text.remove_prefix(1);
    }
    for (int value = VKLOG_LEVEL_FATAL; value <= VKLOG_LEVEL_TRACE; value++) {
        if (text == s_level_names[value]) {
            *level = vklog_level_t{value, sign};
            return 0;
        }
    }
    return -1;
}

// ---- new, clone, free -----------------------------------------------------------
vklog_config_t *vklog_config_new()
{
    return new (std::nothrow) vklog_config_t{};
}

vklog_config_t *vklog_config_new_from_preset(vklog_cfg_preset_type_t type)
{
    if (type < 0 || static_cast<size_t>(type) >= std::size(s_presets))
        return nullptr;
    vklog_config_t *config = vklog_config_new();
    if (config != nullptr)
        vl_apply_preset(config, s_presets[type]);
    return config;
}

vklog_config_t *vklog_config_clone_from_config(const vklog_config_t *config)
{
    if (config == nullptr)
        return nullptr;
    vklog_config_t *copy = new (std::nothrow) vklog_config_t(*config);
    if (copy != nullptr) {
        copy->count_in_use = 0;
        copy->next = nullptr;
    }
    return copy;
}

vklog_config_t *vklog_config_clone_from_vklog(vklog_t *cat)
{
    if (cat == nullptr)
        return nullptr;
    std::lock_guard<vklog_lock_t> hold(cat->config_lock);
    return vklog_config_clone_from_config(cat->config);
}

vklog_config_t *vklog_config_clone_from_global_log()
{
    return vklog_config_clone_from_vklog(g_vklog.load(std::memory_order_acquire));
}

vklog_config_t *vklog_config_clone_from_category(const char *name)
{
    if (name == nullptr)
        return nullptr;
    return vklog_config_clone_from_vklog(vl_find_category(name));
}

void vklog_config_free(vklog_config_t *config)
{
    delete config;
}

void vl_config_list_free(vklog_config_t *head)
{
    while (head != nullptr) {
        vklog_config_t *next = head->next;
        delete head;
        head = next;
    }
}

// ---- set, finish, compare, print ---------------------------------------------
int vklog_config_set(vklog_config_t *config, vklog_cfg_type_t key, unsigned int length, const char *value)
{
    if (config == nullptr || value == nullptr)
        return -2;
    std::string_view text(value, strnlen(value, length));
    switch (key) {
    case VKLOG_CFG_TYPE_NAME:
        return vl_set_text(config->name, sizeof(config->name), &config->name_len, text, key);
    case VKLOG_CFG_TYPE_DIRECTORY:
        return vl_set_directory(config->out_dir, sizeof(config->out_dir), text, key);
    case VKLOG_CFG_TYPE_FILENAME:
        return vl_set_text(config->out_file, sizeof(config->out_file), &config->out_file_len, text, key);
    case VKLOG_CFG_TYPE_OUTPUT_TYPE:
        return vl_set_output(config, text);
    case VKLOG_CFG_TYPE_FILE_PERMISSION:
        vl_set_permission(config, text);
        return 0;
    case VKLOG_CFG_TYPE_VKLOGGER_IP:
        return vl_set_text(config->vklogger_ip, sizeof(config->vklogger_ip), nullptr, text, key);
    case VKLOG_CFG_TYPE_VKLOGGER_PORT:
        config->vklogger_port = static_cast<uint16_t>(vl_parse_unsigned(vl_trim(text), 10, nullptr));
        return 0;
    case VKLOG_CFG_TYPE_LEVEL:
        return vl_set_level(config, text);
    case VKLOG_CFG_TYPE_HEADER_FLAG:
        (void)vl_parse_word_list(text, s_header_words, false, &config->header_flag);
        return 0;
    case VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME:
        config->include_us_to_time = text == "true" ? 1 : 0;
        return 0;
    case VKLOG_CFG_TYPE_LIMIT_FILE_SIZE:
        config->limit_size = vl_to_uint(text);
        return 0;
    case VKLOG_CFG_TYPE_BACKUP_DIRECTORY:
        return vl_set_directory(config->backup_dir, sizeof(config->backup_dir), text, key);
    case VKLOG_CFG_TYPE_BACKUP_FILE_COUNT:
        config->backup_count = vl_to_uint(text);
        return 0;
    default:
        return 0; // NONE and unknown keys are accepted and ignored
    }
}

int vl_load_config_finish(vklog_config_t *config)
{
    if (config == nullptr)
        return -1;
    config->out_path[0] = '\0';
    if (config->out_dir[0] != '\0') {
        snprintf(config->out_path, sizeof(config->out_path), "%.4095s/", config->out_dir);
        if (config->limit_size == 0)
            config->limit_size = VL_DEFAULT_LIMIT_SIZE;
    }
    if (config->out_file[0] == '\0') {
        // Name with blanks as underscores and ".log"; the name is cut so the result fits.
        size_t len = strnlen(config->name, sizeof(config->out_file) - 5);
        for (size_t i = 0; i < len; i++)
            config->out_file[i] = config->name[i] == ' ' ? '_' : config->name[i];
        memcpy(config->out_file + len, ".log", 5);
    }
    config->out_file_len = static_cast<unsigned int>(strnlen(config->out_file, sizeof(config->out_file) - 1));
    size_t used = strlen(config->out_path);
    snprintf(config->out_path + used, sizeof(config->out_path) - used, "%.127s", config->out_file);
    if (config->backup_dir[0] != '\0')
        snprintf(config->backup_path, sizeof(config->backup_path), "%.4095s/%.127s", config->backup_dir,
                 config->out_file);
    else
        memcpy(config->backup_path, config->out_path, strlen(config->out_path) + 1);
    if (config->vklogger_port == 0)
        config->vklogger_port = VL_DEFAULT_VKLOGGER_PORT;
    config->file_permission &= ~0111u;
    return 0;
}

int vklog_config_finish(vklog_config_t *config)
{
    return vl_load_config_finish(config);
}

bool vl_config_equal(const vklog_config_t *a, const vklog_config_t *b)
{
    auto same = [](const char *x, const char *y, size_t size) { return strncmp(x, y, size) == 0; };
    return same(a->name, b->name, sizeof(a->name)) && a->name_len == b->name_len &&
           same(a->out_dir, b->out_dir, sizeof(a->out_dir)) &&
           same(a->out_file, b->out_file, sizeof(a->out_file)) && a->out_file_len == b->out_file_len &&
           same(a->out_path, b->out_path, sizeof(a->out_path)) && a->file_permission == b->file_permission &&
           same(a->vklogger_ip, b->vklogger_ip, sizeof(a->vklogger_ip)) &&
           a->vklogger_port == b->vklogger_port && a->output == b->output &&
           a->header_flag == b->header_flag && a->include_us_to_time == b->include_us_to_time &&
           a->level.value == b->level.value && a->level.inequality_sign == b->level.inequality_sign &&
           a->limit_size == b->limit_size && same(a->backup_dir, b->backup_dir, sizeof(a->backup_dir)) &&
           same(a->backup_path, b->backup_path, sizeof(a->backup_path)) && a->backup_count == b->backup_count;
}

void vklog_config_print(const vklog_config_t *config)
{
    if (config == nullptr)
        return;
    printf(
        "config(0x%016lx)[name:(%u)%.127s,out:[file[dir:%.4095s,file:(%u)%.127s],vklogger[ip:%.39s,port:%hu]]"
        ","
        "type:%d,level:%c%s(%d)],limit size:%u,header flag:%u,include us:%d,backup[dir:%.4095s,count:%u]\n",
        reinterpret_cast<unsigned long>(config), config->name_len, config->name, config->out_dir,
        config->out_file_len, config->out_file, config->vklogger_ip, config->vklogger_port, config->output,
        config->level.inequality_sign > 0 ? static_cast<char>(config->level.inequality_sign) : ' ',
        vl_level_name(config->level.value), config->level.value, config->limit_size, config->header_flag,
        config->include_us_to_time, config->backup_dir, config->backup_count);
}

// ---- configuration file ---------------------------------------------------------
namespace
{

struct vl_conf_key_t {
    std::string_view key;
    vklog_cfg_type_t type;
};

constexpr vl_conf_key_t s_conf_keys[] = {
    {"directory", VKLOG_CFG_TYPE_DIRECTORY},
    {"filename", VKLOG_CFG_TYPE_FILENAME},
    {"output_type", VKLOG_CFG_TYPE_OUTPUT_TYPE},
    {"file_permission", VKLOG_CFG_TYPE_FILE_PERMISSION},
    {"vklogger_ip", VKLOG_CFG_TYPE_VKLOGGER_IP},
    {"vklogger_port", VKLOG_CFG_TYPE_VKLOGGER_PORT},
    {"level", VKLOG_CFG_TYPE_LEVEL},
    {"header_flag", VKLOG_CFG_TYPE_HEADER_FLAG},
    {"include_us_in_time", VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME},
    {"limit_file_size", VKLOG_CFG_TYPE_LIMIT_FILE_SIZE},
    {"backup_directory", VKLOG_CFG_TYPE_BACKUP_DIRECTORY},
    {"backup_file_count", VKLOG_CFG_TYPE_BACKUP_FILE_COUNT},
};

// The configurations read so far; all freed unless handed out with release().
struct vl_conf_list_t {
    vklog_config_t *head = nullptr;
    vklog_config_t *tail = nullptr;

    ~vl_conf_list_t() { vl_config_list_free(head); }
    void append(vklog_config_t *config)
    {
        (tail != nullptr ? tail->next : head) = config;
        tail = config;
    }
    vklog_config_t *release()
    {
        vklog_config_t *out = head;
        head = tail = nullptr;
        return out;
    }
};

struct vl_file_closer_t {
    void operator()(FILE *f) const { fclose(f); }
};

// Opens a configuration file for reading: never through a symbolic link at its name, never
// blocking on a FIFO, and only a regular file. Anything else counts as missing (null, errno
// ENOENT) and is reported at ERROR, on standard error while no program log exists yet.
FILE *vl_open_conf_file(const char *path)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0 && errno != ELOOP)
        return nullptr;
    struct stat st {
    };
    const char *why = fd < 0 ? "is a symbolic link" : fstat(fd, &st) != 0 ? "cannot be examined" : nullptr;
    if (why == nullptr && !S_ISREG(st.st_mode))
        why = "is not a regular file";
    if (why == nullptr) {
        FILE *file = fdopen(fd, "r");
        if (file == nullptr)
            close(fd);
        return file;
    }
    if (fd >= 0)
        close(fd);
    vklog_t *log = g_vklog.load(std::memory_order_acquire);
    if (log != nullptr)
        VKLOG_ERROR(log, "[vl_load_config_from_conf_file] %s %s; read as missing.\n", path, why);
    else
        fprintf(stderr, "[vl_load_config_from_conf_file] %s %s; read as missing.\n", path, why);
    errno = ENOENT;
    return nullptr;
}

// A "[name]" line: a new configuration from the DEFAULT preset. 0, -12, or -11 (memory).
int vl_conf_section(std::string_view line, vl_conf_list_t *list)
{
    size_t close = line.find(']');
    if (close == std::string_view::npos)
        return -12;
    std::string_view name = vl_trim(line.substr(1, close - 1));
    vklog_config_t *config = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    if (config == nullptr)
        return -11;
    // A name too long for the field is cut rather than left as the preset's name.
    name = name.substr(0, sizeof(config->name) - 1);
    (void)vklog_config_set(config, VKLOG_CFG_TYPE_NAME, static_cast<unsigned>(name.size()), name.data());
    list->append(config);
    return 0;
}

// A "key = value" line of the current section. 0, -13 or -14.
int vl_conf_key_value(std::string_view line, vklog_config_t *config)
{
    size_t eq = line.find('=');
    if (eq == std::string_view::npos || config == nullptr)
        return 0;
    std::string_view key = vl_trim(line.substr(0, eq));
    std::string_view value = vl_trim(line.substr(eq + 1));
    if (value.size() >= s_conf_value_limit)
        return -13;
    for (const vl_conf_key_t &entry : s_conf_keys) {
        if (key != entry.key)
            continue;
        int rc = vklog_config_set(config, entry.type, static_cast<unsigned>(value.size()), value.data());
        return rc == VKLOG_CFG_TYPE_LEVEL ? -14 : 0; // only a bad level fails the load
    }
    return 0;
}

int vl_conf_line(std::string_view line, vl_conf_list_t *list)
{
    line = line.substr(0, line.find('#'));
    line = vl_trim(line);
    if (line.empty())
        return 0;
    if (line[0] == '[')
        return vl_conf_section(line, list);
    return vl_conf_key_value(line, list->tail);
}

// Reads one line (up to and including its newline) and keeps its first `size` bytes in
// `line`, newline included. An over-long line's rest is read and dropped, never taken as a
// line of its own: the tail of a long comment must not turn into a setting. Returns the
// bytes consumed (0 at the end of the file); *kept is the number stored.
off_t vl_read_line(FILE *file, char *line, size_t size, size_t *kept)
{
    off_t consumed = 0;
    *kept = 0;
    for (int c = getc(file); c != EOF; c = getc(file)) {
        consumed++;
        if (*kept < size)
            line[(*kept)++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    return consumed;
}

} // namespace

vklog_config_t *vl_load_config_from_conf_file(const char *path, int *rc, int *err)
{
    int rc_local = 0;
    int err_local = 0;
    rc = rc != nullptr ? rc : &rc_local;
    err = err != nullptr ? err : &err_local;
    std::unique_ptr<FILE, vl_file_closer_t> file(path != nullptr ? vl_open_conf_file(path) : nullptr);
    struct stat st {
    };
    if (file == nullptr || fstat(fileno(file.get()), &st) != 0) {
        *err = path != nullptr ? errno : EINVAL;
        *rc = -11;
        return nullptr;
    }
    vl_conf_list_t list;
    char line[s_conf_line_size];
    off_t total = 0;
    // Up to the size seen at open: a file that grows while it is read is not chased.
    size_t len = 0;
    while (total < st.st_size) {
        off_t consumed = vl_read_line(file.get(), line, sizeof(line), &len);
        if (consumed == 0)
            break;
        total += consumed;
        int line_rc = vl_conf_line(std::string_view(line, len), &list);
        if (line_rc != 0) {
            *rc = line_rc;
            return nullptr;
        }
    }
    for (vklog_config_t *c = list.head; c != nullptr; c = c->next)
        vl_load_config_finish(c);
    *rc = 0;
    return list.release();
}
