// util: the single-instance guard, the root flag, the send-queue drop report, the ${NAME}
// path expansion, and the loading of the target agent registry. Called by main,
// process_main and pub_conf during start-up, and by the command thread every 30 seconds.
#include "util.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <mutex>
#include <string_view>

#include "global_var.h"
#include "os/linux/olv_linux.h"
#include "vk_file.h"
#include "vk_string.h"
#include "vklog.h"

// ---- ${NAME} expansion --------------------------------------------------------

namespace
{

// Appends text to dest (terminated, dest_size bytes). False when it does not fit; dest then
// holds as much as fits.
bool append_text(char *dest, size_t dest_size, std::string_view text)
{
    size_t used = strnlen(dest, dest_size - 1);
    size_t room = dest_size - 1 - used;
    size_t n = std::min(room, text.size());
    memcpy(dest + used, text.data(), n);
    dest[used + n] = '\0';
    return n == text.size();
}

} // namespace

int convert_env_path(const char *source, char *dest, size_t dest_size)
{
    if (source == nullptr || dest == nullptr || dest_size == 0)
        return -1;
    std::string_view rest(source, strnlen(source, 255));
    while (true) {
        size_t open = rest.find("${");
        if (open == std::string_view::npos)
            return append_text(dest, dest_size, rest) ? 0 : -4;
        size_t close = rest.find('}', open + 2);
        if (close == std::string_view::npos)
            return -2;
        char name[256] = {};
        std::string_view var = rest.substr(open + 2, close - open - 2);
        memcpy(name, var.data(), std::min(var.size(), sizeof(name) - 1));
        char value[256];
        if (getenv_vk(value, sizeof(value), name) <= 0)
            return -3;
        if (!append_text(dest, dest_size, rest.substr(0, open)) || !append_text(dest, dest_size, value))
            return -4;
        rest.remove_prefix(close + 1);
    }
}

// ---- single-instance guard ------------------------------------------------------

namespace
{

constexpr size_t k_pid_record_size = 32;

// The pid file of the running agent, locked from its start to its exit: a second agent on
// the home meets the lock whatever the record holds (an unwritable disk leaves it stale).
int s_pid_fd = -1; // main thread only

// The pid recorded in the first 32 bytes (0 when empty or unreadable).
pid_t read_pid_record(int fd)
{
    char record[k_pid_record_size + 1] = {};
    ssize_t n = pread(fd, record, k_pid_record_size, 0);
    if (n <= 0)
        return 0;
    long pid = strtol(record, nullptr, 10);
    return pid > 0 && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

// Opens the pid file read-write (created 0666 less the umask), never through a link and
// only when it is a regular file; a refusal ends with the KTR-OSM-00020070 open failure line.
int open_pid_file(const char *path)
{
    int fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    int err = errno;
    struct stat st {
    };
    if (fd < 0 && err == ELOOP && lstat(path, &st) == 0 && S_ISLNK(st.st_mode))
        VKLOG_ERROR(g_vklog.load(), "[check_double_execution] file(%s) is a symbolic link: not followed.\n",
                    path);
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        VKLOG_ERROR(g_vklog.load(), "[check_double_execution] file(%s) is not a regular file.\n", path);
        close(fd);
        fd = -1;
        err = EINVAL;
    }
    if (fd < 0)
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020070] File open failed. FileName:%s (%d)\n", path, err);
    return fd;
}

// True when the record names a live process whose command line holds process_name (our own pid
// never counts: a restart that got the same pid again, pid 1 in a container, finds its own
// number in a pid file that survived); the refusal is logged.
bool live_agent_recorded(int fd, const char *path, const char *process_name, const char *display_name)
{
    pid_t pid = read_pid_record(fd);
    VKLOG_TRACE(g_vklog_console_debug.load(), "[check_double_execution] open file. %s(%d)\n", path,
                static_cast<int>(pid));
    if (pid == getpid() || process_check(pid, process_name) != 1)
        return false;
    VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020080] Already exists. pid:%d, ProcessName:%s\n",
                static_cast<int>(pid), display_name);
    return true;
}

} // namespace

int check_double_execution(const char *process_name, const char *display_name)
{
    if (s_pid_fd >= 0)
        close(s_pid_fd); // a second check (tests) replaces the first one's hold
    s_pid_fd = -1;
    char path[VK_PATH_SIZE + 32];
    snprintf(path, sizeof(path), "%s/data/manager_agent_pid", g_vk_manager_home);
    vk_unique_fd file(open_pid_file(path));
    if (file.fd < 0)
        return 1;
    if (lockf(file.fd, F_TLOCK, 0) != 0) {
        // The running agent holds the lock for its whole life: name it as such.
        if (live_agent_recorded(file.fd, path, process_name, display_name))
            return 3;
        VKLOG_ERROR(g_vklog.load(),
                    "[KTR-OSM-00020050] The quil-manager-agent is already running. ProcessName:%s\n",
                    display_name);
        return 2;
    }
    if (live_agent_recorded(file.fd, path, process_name, display_name))
        return 3; // closing the file releases the lock
    char record[k_pid_record_size] = {};
    int self = static_cast<int>(getpid());
    snprintf(record, sizeof(record), "%d", self);
    ssize_t written = pwrite(file.fd, record, sizeof(record), 0);
    if (written != static_cast<ssize_t>(sizeof(record))) {
        // Without a record a later start could not tell that this agent runs.
        int err = written < 0 ? errno : ENOSPC;
        fprintf(stderr,
                "[check_double_execution] pid record cannot be written. FileName:%s (%d) not started.\n",
                path, err);
        VKLOG_ERROR(g_vklog.load(),
                    "[check_double_execution] pid record cannot be written. FileName:%s (%d) not started.\n",
                    path, err);
        return 4;
    }
    s_pid_fd = file.fd;
    file.fd = -1;
    VKLOG_INFO(g_vklog.load(), "[check_double_execution] write pid. %d\n", self);
    return 0;
}

int init_sudo_flag()
{
    uid_t euid = geteuid();
    g_sudo_flag.store(euid == 0 ? 1 : 0);
    return static_cast<int>(euid);
}

// ---- send-queue report ------------------------------------------------------------

uint32_t info_log(uint32_t queue_count)
{
    static uint32_t s_prev_tcp_skip = 0; // main thread only
    uint32_t current = g_info_log.load();
    uint32_t skip =
        current >= s_prev_tcp_skip ? current - s_prev_tcp_skip : (4294967295u - s_prev_tcp_skip) + current;
    s_prev_tcp_skip = current;
    VKLOG_INFO(g_vklog.load(), "[info_log] current tcp_queue[%u] skip[%d]\n", queue_count, static_cast<int>(skip));
    return skip;
}

// ---- manager id and target agent registry -------------------------------------------

namespace
{

// 1 while the id the DG assigned last could not be saved: the id in memory is then newer
// than the file's, and the next handshake sends it and saves it again.
std::atomic<int> s_manager_id_unsaved{0};

// An id as text: the first line cut at `len` characters, without its line end.
void cut_id_line(char *line, size_t len)
{
    line[len] = '\0';
    line[strcspn(line, "\r\n")] = '\0';
}

// Reads the id line of data/manager_id (at most 39 characters, cut at 36) into line.
// Returns 1 when a line was read, 0 for an empty file, -1 when the file cannot be opened
// (a link or a file of another type is logged with `who`).
int read_manager_id_file(const char *path, char (&line)[40], const char *who)
{
    vk_unique_file file(vk_fopen_read(path, VK_OPEN_NOFOLLOW, who));
    if (!file)
        return -1;
    memset(line, 0, sizeof(line));
    if (fgets(line, sizeof(line), file.get()) == nullptr)
        return 0;
    cut_id_line(line, MANAGER_ID_LEN);
    return 1;
}

void manager_id_path(char (&path)[VK_PATH_SIZE + 32])
{
    snprintf(path, sizeof(path), "%s/data/manager_id", g_vk_manager_home);
}

} // namespace

int get_manager_agent_id()
{
    if (s_manager_id_unsaved.load() != 0)
        return 0;
    char path[VK_PATH_SIZE + 32];
    manager_id_path(path);
    char line[40];
    int ret = read_manager_id_file(path, line, "get_manager_agent_id");
    if (ret < 0)
        return -1;
    if (ret > 0) {
        VKLOG_INFO(g_vklog.load(), "[get_manager_agent_id] get manager agent existed ID [%s]\n", line);
        set_manager_id(line);
    }
    return 0;
}

int save_manager_id(const char *id)
{
    if (id == nullptr)
        return -1;
    char path[VK_PATH_SIZE + 32];
    manager_id_path(path);
    char held[40];
    if (read_manager_id_file(path, held, "save_manager_id") > 0 && strcmp(held, id) == 0) {
        s_manager_id_unsaved.store(0);
        return 0;
    }
    char text[MANAGER_ID_LEN + 2];
    int n = snprintf(text, sizeof(text), "%s\n", id);
    n = std::clamp(n, 0, static_cast<int>(sizeof(text)) - 1);
    if (vk_write_file_atomic(path, text, static_cast<size_t>(n), 0644) != 0) {
        int err = errno;
        s_manager_id_unsaved.store(1);
        VKLOG_ERROR(
            g_vklog.load(),
            "[save_manager_id] file(%s) save failed (%d): the id is kept in memory and saved at the next "
            "handshake.\n",
            path, err);
        return -1;
    }
    s_manager_id_unsaved.store(0);
    return 0;
}

int set_agent_id_to_list(const char *path)
{
    // Id files live in the target agents' homes and may be reached through links; a FIFO or
    // a directory is refused so that nothing blocks the command thread.
    vk_unique_file file(path != nullptr ? vk_fopen_read(path, 0, "set_agent_id_to_list") : nullptr);
    if (!file) {
        VKLOG_DEBUG(g_vklog.load(), "[set_agent_id_to_list] file not exist. path[%s]\n",
                    path != nullptr ? path : "");
        return -1;
    }
    char line[sizeof(json_agent_info_t::agent_id)] = {};
    if (fgets(line, sizeof(line), file.get()) == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[set_agent_id_to_list] file(%s) read failed. path[%s]\n", path, path);
        return -2;
    }
    cut_id_line(line, AGENT_ID_LEN);
    // The list goes to the DG as protobuf strings: one id that is not text would make a
    // strict decoder refuse the whole list.
    if (!vk_is_utf8(line)) {
        VKLOG_ERROR(g_vklog.load(),
                    "[set_agent_id_to_list] file(%s) id is not valid UTF-8: left out of the list.\n", path);
        return -4;
    }
    int count = std::clamp(g_json_agent_count, 0, MAX_AGENT_COUNT);
    for (int i = 0; i < count; i++) {
        if (strcmp(g_json_agent_info[i].agent_id, line) == 0) {
            VKLOG_DEBUG(g_vklog.load(),
                        "[set_agent_id_to_list] ID with the same value already exists. path[%s] idx[%d]\n",
                        path, i);
            return i;
        }
    }
    if (count >= MAX_AGENT_COUNT) {
        VKLOG_ERROR(g_vklog.load(), "[set_agent_id_to_list] agent list is full (%d). path[%s]\n", count,
                    path);
        return -3;
    }
    json_agent_info_t &record = g_json_agent_info[count];
    record = json_agent_info_t{};
    vk_strlcpy(record.agent_id, line);
    VKLOG_DEBUG(g_vklog.load(), "[set_agent_id_to_list] file read success. path[%s] agent_id[%s]\n", path,
                record.agent_id);
    g_json_agent_count = count + 1;
    return count;
}

namespace
{

struct cjson_deleter {
    void operator()(cJSON *tree) const { cJSON_Delete(tree); }
};
using unique_cjson = std::unique_ptr<cJSON, cjson_deleter>;

// An item's member name, "" for array elements.
const char *name_of(const cJSON *item)
{
    return item->string != nullptr ? item->string : "";
}

// Reads the whole file into *text, terminated after the bytes actually read. The length
// from ftell only sizes the buffer: it is bounded first, and a shorter read is an error.
// Returns 0 or -2 .. -6 as parse_agent_config_file.
int read_agent_config(FILE *file, vk_unique_malloc<char> *text)
{
    if (fseek(file, 0, SEEK_END) != 0) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file]  fail to fseek function (SEEK_END)\n");
        return -2;
    }
    long len = ftell(file);
    if (len < 0) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file]  fail to ftell function (%d)\n",
                    static_cast<int>(len));
        return -3;
    }
    if (fseek(file, 0, SEEK_SET) != 0) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file]  fail to fseek function (SEEK_SET)\n");
        return -4;
    }
    if (len > AGENT_CONFIG_MAX_SIZE) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] file too large. file_len[%ld] limit[%ld]\n",
                    len, AGENT_CONFIG_MAX_SIZE);
        return -6;
    }
    size_t size = static_cast<size_t>(len);
    text->reset(static_cast<char *>(malloc(size + 1)));
    if (!*text) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] json_content malloc error\n");
        return -5;
    }
    size_t got = fread(text->get(), 1, size, file);
    text->get()[got] = '\0';
    if (got == 0 || got < size) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] fread fail ret[%d] file_len[%d]\n",
                    static_cast<int>(got), static_cast<int>(len));
        return -6;
    }
    return 0;
}

// "common_option": every child holding a string "custom_prefix" sets the prefix in turn.
void apply_common_option(const cJSON *member)
{
    const cJSON *child = nullptr;
    cJSON_ArrayForEach(child, member)
    {
        const cJSON *prefix = cJSON_GetObjectItemCaseSensitive(child, "custom_prefix");
        if (!cJSON_IsString(prefix) || prefix->valuestring == nullptr) {
            VKLOG_DEBUG(g_vklog.load(), "[parse_agent_config_file] Not set field [%s]\n", name_of(member));
            continue;
        }
        size_t len = vk_strlcpy(g_json_prefix_option, prefix->valuestring, sizeof(g_json_prefix_option));
        VKLOG_DEBUG(g_vklog.load(),
                    "[parse_agent_config_file] read field[%s] option[%s] custom_prefix[%s] prefix_len[%d] \n",
                    name_of(member), "custom_prefix", g_json_prefix_option, static_cast<int>(len));
    }
}

// One agent group: registers each entry; a full registry leaves the group.
void register_group(const cJSON *group)
{
    const cJSON *entry = nullptr;
    cJSON_ArrayForEach(entry, group)
    {
        if (g_json_agent_count > MAX_AGENT_COUNT - 1) {
            VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] MAX_AGENT_COUNT!!!\n");
            return;
        }
        const cJSON *path = cJSON_GetObjectItemCaseSensitive(entry, "path");
        if (!cJSON_IsString(path) || path->valuestring == nullptr) {
            VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] Invalid path field [%s]\n",
                        name_of(group));
            continue;
        }
        VKLOG_DEBUG(g_vklog.load(), "[parse_agent_config_file] parsed path [%s] [%s]\n", name_of(group),
                    path->valuestring);
        int idx = set_agent_id_to_list(path->valuestring);
        if (idx < 0)
            continue;
        const cJSON *root_check = cJSON_GetObjectItemCaseSensitive(entry, "root_check");
        if (root_check == nullptr) {
            g_json_agent_info[idx].root_check = 0;
        } else if (cJSON_IsNumber(root_check)) {
            VKLOG_DEBUG(g_vklog.load(),
                        "[parse_agent_config_file] update root_check option path[%s] root_check[%d]\n",
                        path->valuestring, root_check->valueint);
            g_json_agent_info[idx].root_check = root_check->valueint;
        }
    }
}

} // namespace

int parse_agent_config_file()
{
    VKLOG_DEBUG(g_vklog.load(), "[parse_agent_config_file] autoload start. g_auto_load_count[%d]\n",
                g_auto_load_count);
    {
        std::lock_guard<vklock_t> hold(g_json_lock);
        for (int i = 0; i < std::min(g_auto_load_count, MAX_AGENT_COUNT); i++)
            (void)set_agent_id_to_list(g_vk_auto_load_path[i]); // a missing file is logged and skipped
    }
    char path[VK_PATH_SIZE + 32];
    snprintf(path, sizeof(path), "%s/data/agent_config.json", g_vk_manager_home);
    vk_unique_file file(vk_fopen_read(path, VK_OPEN_NOFOLLOW, "parse_agent_config_file"));
    if (!file) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] agent_config.json file(%s) open failed.\n",
                    path);
        return -1;
    }
    VKLOG_DEBUG(g_vklog.load(), "[parse_agent_config_file] start parse to agent_config_path [%s]\n", path);
    vk_unique_malloc<char> text;
    if (int rc = read_agent_config(file.get(), &text); rc != 0)
        return rc;
    unique_cjson root(cJSON_Parse(text.get()));
    if (!root) {
        VKLOG_ERROR(g_vklog.load(), "[parse_agent_config_file] Json file format error\n");
        return -7;
    }
    std::lock_guard<vklock_t> hold(g_json_lock);
    memset(g_json_prefix_option, 0, sizeof(g_json_prefix_option));
    const cJSON *member = nullptr;
    cJSON_ArrayForEach(member, root.get())
    {
        if (strcmp(name_of(member), "common_option") == 0)
            apply_common_option(member);
        else
            register_group(member);
    }
    return g_json_agent_count;
}
