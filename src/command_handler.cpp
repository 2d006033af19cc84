// command_handler: the command ring, the patch transfer map, the operations the command
// thread and the collector use on them, and the intake handlers that fill them (set_command,
// patch_command, del_command, write_file_from_chunk).
#include "command_handler.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "cmd_journal.h"
#include "command_util.h"
#include "global_var.h"
#include "hash2.h"
#include "pkt_proto/proto_send.h"
#include "signal_ctl.h"
#include "vk_lock.h"
#include "vk_raii.h"
#include "vk_sha256.h"
#include "vk_string.h"
#include "vk_time.h"
#include "vklog.h"

// The unit's own state; nothing outside this file names it.
//
//   g_cmd_info[100]: start = oldest record, end = next slot to fill, count = records in use.
//   A record passes empty -> USED (queued) -> RUN (taken by the command thread; a patch_stop
//   turns it into STOP) -> empty; a patch_stop of a USED record empties it at once.
//   g_patch_list_map: agent id -> patch_item_t, from patch_start until the transfer fails, is
//   cancelled or collected, or its command has run (buffer_index: its slot, -1 before).
namespace
{
cmd_info_t g_cmd_info[CMD_INFO_COUNT];
int32_t g_cmd_info_start = 0;
int32_t g_cmd_info_end = 0;
std::atomic<int32_t> g_cmd_info_count{0}; // also read without the lock by cmd_ring_count
vklock_t g_command_lock;                  // the ring and its counters
map_t g_patch_list_map;
vklock_t g_hash_lock; // the map and every item in it; taken before g_command_lock

// What the map holds for a transfer: the item and the SHA-256 of what has been written,
// taken chunk by chunk so that the finished file is never read again.
struct patch_entry_t {
    patch_item_t item; // first: the map's values are used as patch_item_t
    vk_sha256_t sha;
};
static_assert(offsetof(patch_entry_t, item) == 0);

vk_sha256_t *sha_of(patch_item_t *item)
{
    return &reinterpret_cast<patch_entry_t *>(item)->sha;
}

// The newest digests of finished patch files, a ring under g_hash_lock.
patch_digest_t g_patch_digests[PATCH_DIGEST_KEPT];
int g_patch_digest_next = 0;  // the slot the next digest goes to
int g_patch_digest_count = 0; // slots filled, at most PATCH_DIGEST_KEPT

// Finishes the digest of a complete patch file, logs it and keeps it for the status report.
// Caller holds g_hash_lock.
void keep_patch_digest(patch_item_t *item)
{
    uint8_t digest[32];
    vk_sha256_final(sha_of(item), digest);
    patch_digest_t &kept = g_patch_digests[g_patch_digest_next];
    g_patch_digest_next = (g_patch_digest_next + 1) % PATCH_DIGEST_KEPT;
    if (g_patch_digest_count < PATCH_DIGEST_KEPT)
        g_patch_digest_count++;
    vk_sha256_hex(digest, kept.sha256);
    vk_strlcpy(kept.execution_id, item->command.execution_id);
    vk_strlcpy(kept.file_name, item->command.file_name);
    kept.size = item->bytes_received;
    kept.written_ms = static_cast<int64_t>(vk_get_time_msec());
    VKLOG_INFO(g_vklog.load(), "[write_file_from_chunk] file(%s) sha256[%s] size[%llu] execution_id[%s]\n",
               item->file_path, kept.sha256, static_cast<unsigned long long>(kept.size), kept.execution_id);
}

// The map key of an agent id: its first 63 characters, zero-padded to 64 bytes.
struct patch_key_t {
    char bytes[PATCH_KEY_LEN] = {};
    explicit patch_key_t(const char *agent_id) { vk_strlcpy(bytes, agent_id != nullptr ? agent_id : ""); }
};

// The item of agent_id, or null. Caller holds g_hash_lock.
patch_item_t *patch_lookup_locked(const char *agent_id)
{
    patch_key_t key(agent_id);
    void *found = nullptr;
    return map_lookup(&g_patch_list_map, key.bytes, PATCH_KEY_LEN, &found) == 1 ? static_cast<patch_item_t *>(found)
                                                                               : nullptr;
}

// Ends a transfer or a finished patch, for intake, the command thread and the collector
// alike: closes the item's file, removes the item from the map (freeing it) and, with
// remove_file, the file it wrote (the ".part" file while transferring, the patch file once
// queued). Caller holds g_hash_lock.
void patch_item_teardown(patch_item_t *item, bool remove_file)
{
    if (item->buffer_index == -1)
        cmd_journal_remove(item->command.execution_id); // the transfer ends here, answered or not
    if (item->file != nullptr) {
        fclose(item->file);
        item->file = nullptr;
    }
    if (remove_file) {
        char part[PATCH_PART_PATH_SIZE];
        patch_part_path(item, part);
        unlink(item->buffer_index == -1 ? part : item->file_path);
    }
    patch_key_t key(item->key);
    map_item_delete(&g_patch_list_map, key.bytes, PATCH_KEY_LEN);
}

// Appends a copy of record at g_cmd_info_end with status USED. When the ring already holds
// 100 records the oldest is overwritten (start advances too, logged at INFO as
// "[<caller>] command buffer full. overwrite old command. ..."). Returns the slot written.
// Caller holds g_command_lock.
int cmd_ring_push_locked(const cmd_info_t &record, const char *caller)
{
    int slot = g_cmd_info_end;
    if (g_cmd_info_count.load() >= CMD_INFO_COUNT)
        cmd_journal_remove(g_cmd_info[slot].execution_id); // its command is never answered
    g_cmd_info[slot] = record;
    g_cmd_info[slot].status = CMD_STATUS_USED;
    g_cmd_info_end = (g_cmd_info_end + 1) % CMD_INFO_COUNT;
    if (g_cmd_info_count.load() >= CMD_INFO_COUNT) {
        // The oldest command is overwritten by design; the count stays at 100.
        g_cmd_info_start = (g_cmd_info_start + 1) % CMD_INFO_COUNT;
        VKLOG_INFO(g_vklog.load(), "[%s] command buffer full. overwrite old command. new start_idx[%d] end_idx[%d]\n",
                   caller, g_cmd_info_start, g_cmd_info_end);
    } else {
        g_cmd_info_count.fetch_add(1);
    }
    return slot;
}

// Advances the ring past slot when it is still the oldest (the command thread's "remove
// index" line). Caller holds g_command_lock.
void cmd_ring_remove_locked(int slot)
{
    if (g_cmd_info_count.load() <= 0 || g_cmd_info_start != slot)
        return;
    g_cmd_info_start = (g_cmd_info_start + 1) % CMD_INFO_COUNT;
    g_cmd_info_count.fetch_sub(1);
    VKLOG_INFO(g_vklog.load(), "[execute_command] remove index. idx[%d] -> start_idx[%d] end_idx[%d] cmd_count[%d]\n",
               slot, g_cmd_info_start, g_cmd_info_end, g_cmd_info_count.load());
}

bool slot_running(const cmd_info_t &slot)
{
    return slot.status == CMD_STATUS_RUN || slot.status == CMD_STATUS_STOP;
}

} // namespace

// ---- ring and map ----------------------------------------------------------------------

int init_chunk_hash()
{
    {
        std::lock_guard<vklock_t> guard(g_command_lock);
        memset(g_cmd_info, 0, sizeof(g_cmd_info));
        g_cmd_info_start = g_cmd_info_end = 0;
        g_cmd_info_count.store(0);
    }
    std::lock_guard<vklock_t> guard(g_hash_lock);
    map_destroy_ex(&g_patch_list_map, [](void *value) {
        auto *item = static_cast<patch_item_t *>(value);
        if (item->file != nullptr)
            fclose(item->file);
        free(item);
    });
    return map_init(&g_patch_list_map, PATCH_MAP_BUCKETS, static_cast<int>(sizeof(patch_item_t)));
}

int cmd_ring_take(cmd_info_t *work)
{
    std::lock_guard<vklock_t> guard(g_command_lock);
    while (g_cmd_info_count.load() > 0) {
        const int slot = g_cmd_info_start;
        cmd_info_t &record = g_cmd_info[slot];
        if (record.status != CMD_STATUS_USED) {
            memset(&record, 0, sizeof(record)); // cancelled by patch_stop: removed unreported
            cmd_ring_remove_locked(slot);
            continue;
        }
        record.status = CMD_STATUS_RUN;
        *work = record;
        command_stop_clear(); // a stop from here on is a stop of this command
        return slot;
    }
    return -1;
}

void cmd_ring_stop_ids(int slot, cmd_info_t *work)
{
    if (slot < 0 || slot >= CMD_INFO_COUNT)
        return;
    std::lock_guard<vklock_t> guard(g_command_lock);
    const cmd_info_t &record = g_cmd_info[slot];
    if (slot_running(record)) {
        memcpy(work->execution_id, record.execution_id, sizeof(work->execution_id));
        memcpy(work->command_id, record.command_id, sizeof(work->command_id));
    }
}

void cmd_ring_finish(int slot, const cmd_info_t *work)
{
    if (slot < 0 || slot >= CMD_INFO_COUNT)
        return;
    std::lock_guard<vklock_t> hash_guard(g_hash_lock);
    if (work->cmd_type == CMD_PATCH_START) {
        // Unless a new transfer for the agent took the item's place meanwhile.
        patch_item_t *item = patch_lookup_locked(work->agent_id);
        if (item != nullptr && item->buffer_index == slot)
            patch_item_teardown(item, false);
    }
    std::lock_guard<vklock_t> guard(g_command_lock);
    cmd_info_t &record = g_cmd_info[slot];
    if (slot_running(record)) {
        memset(&record, 0, sizeof(record));
        cmd_ring_remove_locked(slot);
    } // else a newer command overwrote the slot while this one ran; the ring moved on
}

int cmd_ring_count(int *start, int *end)
{
    std::lock_guard<vklock_t> guard(g_command_lock);
    if (start != nullptr)
        *start = g_cmd_info_start;
    if (end != nullptr)
        *end = g_cmd_info_end;
    return g_cmd_info_count.load();
}

int cmd_ring_get(int slot, cmd_info_t *out)
{
    if (slot < 0 || slot >= CMD_INFO_COUNT)
        return -1;
    std::lock_guard<vklock_t> guard(g_command_lock);
    *out = g_cmd_info[slot];
    return 0;
}

void command_snapshot(cmd_brief_t *cmds, int max_cmds, int *cmd_count, transfer_brief_t *transfers,
                      int max_transfers, int *transfer_count)
{
    *cmd_count = 0;
    *transfer_count = 0;
    {
        std::lock_guard<vklock_t> guard(g_command_lock);
        const int count = g_cmd_info_count.load();
        for (int i = 0; i < count && *cmd_count < max_cmds; i++) {
            const cmd_info_t &record = g_cmd_info[(g_cmd_info_start + i) % CMD_INFO_COUNT];
            if (record.status == CMD_STATUS_EMPTY)
                continue; // cancelled by a patch_stop while queued
            cmd_brief_t &brief = cmds[(*cmd_count)++];
            vk_strlcpy(brief.execution_id, record.execution_id);
            vk_strlcpy(brief.agent_id, record.agent_id);
            brief.cmd_type = record.cmd_type;
            brief.status = record.status;
            brief.received_time = record.received_time;
        }
    }
    std::lock_guard<vklock_t> guard(g_hash_lock);
    uint64_t cursor = MAP_CURSOR_START;
    while (*transfer_count < max_transfers) {
        void *value = nullptr;
        map_get_next_node(&g_patch_list_map, &cursor, &value);
        if (value == nullptr)
            break;
        const auto *item = static_cast<const patch_item_t *>(value);
        if (item->buffer_index != -1)
            continue; // complete: its command is in the ring
        transfer_brief_t &brief = transfers[(*transfer_count)++];
        vk_strlcpy(brief.execution_id, item->command.execution_id);
        vk_strlcpy(brief.file_name, item->command.file_name);
        brief.bytes_received = item->bytes_received;
        brief.file_size = item->file_size;
    }
}

int patch_digest_recent(patch_digest_t *out, int max)
{
    std::lock_guard<vklock_t> guard(g_hash_lock);
    int n = 0;
    for (; n < max && n < g_patch_digest_count; n++)
        out[n] = g_patch_digests[(g_patch_digest_next - 1 - n + PATCH_DIGEST_KEPT) % PATCH_DIGEST_KEPT];
    return n;
}

int patch_collect_stale(uint64_t now)
{
    int removed = 0;
    std::lock_guard<vklock_t> guard(g_hash_lock);
    uint64_t cursor = MAP_CURSOR_START;
    for (;;) {
        void *value = nullptr;
        map_get_next_node(&g_patch_list_map, &cursor, &value);
        if (value == nullptr)
            break;
        auto *item = static_cast<patch_item_t *>(value);
        const cmd_info_t &record = item->command;
        const uint64_t elapsed = now > record.received_time ? now - record.received_time : 0;
        if (elapsed <= static_cast<uint64_t>(record.timeout))
            continue;
        VKLOG_INFO(g_vklog.load(), "[start_garbage_collect] garbage detect agent_id [%s] taget_timeout[%d] now_time[%d]\n",
                   record.agent_id, record.timeout, static_cast<int>(elapsed));
        // The walk survives deleting the item it just returned.
        patch_item_teardown(item, item->buffer_index == -1);
        removed++;
    }
    return removed;
}

int patch_count()
{
    std::lock_guard<vklock_t> guard(g_hash_lock);
    return static_cast<int>(g_patch_list_map.count);
}

int remove_partial_patch_files()
{
    char path[VK_PATH_SIZE + 8];
    const size_t home_len = strnlen(g_vk_manager_home, sizeof(g_vk_manager_home) - 1);
    if (home_len + sizeof("/tmp") > sizeof(path))
        return -1;
    memcpy(path, g_vk_manager_home, home_len);
    memcpy(path + home_len, "/tmp", sizeof("/tmp"));
    int dir = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dir < 0)
        return -1;
    const size_t suffix_len = sizeof(PATCH_PART_SUFFIX) - 1;
    int removed = 0;
    alignas(8) char entries[4096];
    for (;;) {
        long n = syscall(SYS_getdents64, dir, entries, sizeof(entries));
        if (n <= 0)
            break;
        for (long at = 0; at < n;) {
            const auto *entry = reinterpret_cast<const dirent64 *>(entries + at);
            at += entry->d_reclen;
            size_t len = strlen(entry->d_name);
            if (len <= suffix_len || memcmp(entry->d_name + len - suffix_len, PATCH_PART_SUFFIX, suffix_len) != 0)
                continue;
            if (unlinkat(dir, entry->d_name, 0) == 0) // a directory of that name is left alone
                removed++;
        }
    }
    close(dir);
    return removed;
}

// ---- intake ---------------------------------------------------------------------------------

namespace
{


// Timeouts above INT32_MAX ms (24 days) are kept at that: the record holds a signed value,
// and a wrapped negative one would end every run at once.
int32_t clamp_timeout(uint32_t timeout)
{
    return timeout > static_cast<uint32_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(timeout);
}

// Copies the request's identifiers, users, paths and time-out into record; the received
// time is now.
void fill_record(cmd_info_t &record, const req_command_message_t *msg)
{
    vk_strlcpy(record.execution_id, msg->execution_id);
    vk_strlcpy(record.command_id, msg->command_id);
    record.cmd_type = msg->cmd_type;
    vk_strlcpy(record.agent_id, msg->agent_id);
    record.agent_type = msg->agent_type;
    vk_strlcpy(record.install_username, msg->install_username);
    vk_strlcpy(record.install_path, msg->install_path);
    vk_strlcpy(record.run_username, msg->run_username);
    vk_strlcpy(record.run_path, msg->run_path);
    record.timeout = clamp_timeout(msg->timeout);
    record.received_time = static_cast<uint64_t>(vk_get_time_msec());
}

// Sets the record's result and text, sends it with phase and clears the text again.
template <typename... Args>
void report(cmd_info_t &record, int result, int phase, const char *format, Args... args)
{
    record.result = result;
    snprintf(record.result_message, sizeof(record.result_message), format, args...);
    send_res_command(&record, phase);
    memset(record.result_message, 0, sizeof(record.result_message));
}

// The request and the stored record at INFO: "[set_command] idx[N][proto ] ..." for a ring
// slot, "[patch_command] [proto ] ..." for a patch item (idx -1), which has no slot yet.
void log_request(const char *func, int idx, const req_command_message_t *msg, const cmd_info_t &record)
{
    char slot[24] = "";
    if (idx >= 0)
        snprintf(slot, sizeof(slot), "idx[%d]", idx);
    const char *gap = " ";
    VKLOG_INFO(g_vklog.load(), "[%s]%s%s[proto ] execution_id[%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s] timeout[%d]\n",
               func, gap, slot, msg->execution_id, msg->agent_id, msg->agent_type, msg->cmd_type,
               cmd_type_name(msg->cmd_type), static_cast<int>(msg->timeout));
    VKLOG_INFO(g_vklog.load(), "[%s]%s%s[struct] execution_id[%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s] timeout[%d]\n",
               func, gap, slot, record.execution_id, record.agent_id, record.agent_type, record.cmd_type,
               cmd_type_name(record.cmd_type), record.timeout);
    VKLOG_INFO(g_vklog.load(), "[%s]%s%s[proto ] install_username[%s] install_path[%s] run_username[%s] run_path[%s]\n",
               func, gap, slot, msg->install_username, msg->install_path, msg->run_username, msg->run_path);
    VKLOG_INFO(g_vklog.load(), "[%s]%s%s[struct] install_username[%s] install_path[%s] run_username[%s] run_path[%s]\n",
               func, gap, slot, record.install_username, record.install_path, record.run_username, record.run_path);
}

// A patch file name must name one file directly under tmp: no path, no "." or "..", no
// character a shell would read as syntax (the name becomes part of the setup command line),
// and short enough to be kept whole.
bool patch_file_name_allowed(const char *name)
{
    std::string_view n(name);
    if (n.empty() || n == "." || n == ".." || n.size() >= sizeof(cmd_info_t::file_name))
        return false;
    for (char c : n) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  std::string_view("._-+@=,").find(c) != std::string_view::npos;
        if (!ok)
            return false;
    }
    return true;
}

// Names the agent itself writes in tmp: the install-information files "<digits>_install_info"
// and the ".part" files of transfers in progress. A patch of such a name would be overwritten
// by the agent, or removed as an unfinished transfer.
bool patch_file_name_reserved(std::string_view name)
{
    constexpr std::string_view info = "_install_info", part = PATCH_PART_SUFFIX;
    if (name.ends_with(part))
        return true;
    if (!name.ends_with(info) || name.size() == info.size())
        return false;
    name.remove_suffix(info.size());
    return name.find_first_not_of("0123456789") == std::string_view::npos;
}

// True when the home's tmp is a directory itself, not a link to one elsewhere.
bool tmp_dir_is_real()
{
    char path[VK_PATH_SIZE + 8];
    snprintf(path, sizeof(path), "%s/tmp", g_vk_manager_home);
    struct stat st {};
    return lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The transfer (other than skip) that writes file_path, if any. Caller holds g_hash_lock.
bool patch_file_in_use(const char *file_path)
{
    uint64_t cursor = MAP_CURSOR_START;
    for (void *value = nullptr;;) {
        value = nullptr;
        map_get_next_node(&g_patch_list_map, &cursor, &value);
        if (value == nullptr)
            return false;
        if (strcmp(static_cast<patch_item_t *>(value)->file_path, file_path) == 0)
            return true;
    }
}

// Refusal of a patch_start, sent like the "already in progress" answer.
template <typename... Args> void refuse_patch(const req_command_message_t *msg, const char *format, Args... args)
{
    cmd_info_t ack{};
    vk_strlcpy(ack.execution_id, msg->execution_id);
    vk_strlcpy(ack.command_id, msg->command_id);
    ack.cmd_type = msg->cmd_type;
    ack.agent_type = msg->agent_type;
    report(ack, CMD_RESULT_FAIL, CMD_PHASE_IN_PROGRESS, format, args...);
}

// Gives the completed ".part" file its name; a file or link of that name is replaced.
// False (logged) when the rename fails.
bool finish_part_file(const patch_item_t *item)
{
    char part[PATCH_PART_PATH_SIZE];
    patch_part_path(item, part);
    if (rename(part, item->file_path) == 0)
        return true;
    VKLOG_ERROR(g_vklog.load(), "[write_file_from_chunk] rename %s to %s failed. errno[%d]\n", part, item->file_path,
                errno);
    return false;
}

} // namespace

int set_command(const req_command_message_t *msg)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    cmd_info_t record{};
    fill_record(record, msg);
    int idx;
    {
        std::lock_guard<vklock_t> guard(g_command_lock);
        idx = g_cmd_info_end;
    }
    log_request("set_command", idx, msg, record);
    report(record, CMD_RESULT_SUCCESS, CMD_PHASE_IN_PROGRESS, "[agent manager] Success received the command(%s)",
           cmd_type_name(record.cmd_type));
    std::lock_guard<vklock_t> guard(g_command_lock);
    cmd_ring_push_locked(record, "set_command");
    cmd_journal_accept(&record, nullptr);
    return 0;
}

int patch_command(const req_command_message_t *msg)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    std::lock_guard<vklock_t> hash_guard(g_hash_lock);
    patch_key_t key(msg->agent_id);
    if (patch_lookup_locked(msg->agent_id) != nullptr) {
        VKLOG_INFO(g_vklog.load(), "[set_patch_command] The patch is already in progress agent_id(%s)\n", msg->agent_id);
        refuse_patch(msg, "[agent manager] The patch is already in progress agent_id(%s)", msg->agent_id);
        return 0;
    }
    const file_info_t *file = msg->target_file_info;
    if (file == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] no file information. agent_id(%s)\n", msg->agent_id);
        refuse_patch(msg, "[agent manager] patch file information does not exist agent_id(%s)", msg->agent_id);
        return 0;
    }
    if (!patch_file_name_allowed(file->file_name)) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] file name refused. agent_id(%s) file_name[%s]\n", msg->agent_id,
                    file->file_name);
        refuse_patch(msg, "[agent manager] patch file name is not allowed (%s)", file->file_name);
        return 0;
    }
    if (patch_file_name_reserved(file->file_name)) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] file name reserved by the agent. agent_id(%s) file_name[%s]\n",
                    msg->agent_id, file->file_name);
        refuse_patch(msg, "[agent manager] patch file name is reserved by the agent (%s)", file->file_name);
        return 0;
    }
    if (!tmp_dir_is_real()) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] %s/tmp is not a directory of the home (missing or a link). agent_id(%s)\n",
                    g_vk_manager_home, msg->agent_id);
        refuse_patch(msg, "[agent manager] tmp directory of the manager home is not usable (%s/tmp)", g_vk_manager_home);
        return 0;
    }
    auto entry = vk_alloc_zeroed<patch_entry_t>();
    if (!entry) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] hash item malloc function Fail\n");
        return 0;
    }
    vk_sha256_init(&entry->sha);
    patch_item_t *item = &entry->item;
    memcpy(item->key, key.bytes, PATCH_KEY_LEN);
    int n = snprintf(item->file_path, sizeof(item->file_path), "%s/tmp/%s", g_vk_manager_home, file->file_name);
    if (n >= static_cast<int>(sizeof(item->file_path))) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] file path too long. agent_id(%s) file_name[%s]\n", msg->agent_id,
                    file->file_name);
        refuse_patch(msg, "[agent manager] patch file path is too long (%s)", file->file_name);
        return 0;
    }
    if (patch_file_in_use(item->file_path)) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] file in use by another transfer. agent_id(%s) file_name[%s]\n",
                    msg->agent_id, file->file_name);
        refuse_patch(msg, "[agent manager] patch file(%s) is in use by another transfer", file->file_name);
        return 0;
    }
    cmd_info_t &record = item->command;
    fill_record(record, msg);
    const int count = msg->target_agent_infos.length;
    record.option_count = count < CMD_OPTION_COUNT ? count : CMD_OPTION_COUNT;
    for (int i = 0; i < record.option_count; i++) {
        const pbtools_map_entry_t &pair = msg->target_agent_infos.items_p[i];
        vk_strlcpy(record.options[i].key, pair.key);
        vk_strlcpy(record.options[i].value, pair.value);
    }
    vk_strlcpy(record.file_name, file->file_name);
    item->buffer_index = -1;
    item->file = nullptr;
    item->file_size = static_cast<int64_t>(file->file_size);
    log_request("patch_command", -1, msg, record);
    for (int i = 0; i < count; i++) {
        const pbtools_map_entry_t &pair = msg->target_agent_infos.items_p[i];
        VKLOG_INFO(g_vklog.load(), "[patch_command] [proto ] [%d] key[%s] value[%s]\n", i, pair.key, pair.value);
    }
    VKLOG_INFO(g_vklog.load(), "[patch_command] file_name[%s] file_size[%d] size[%d]\n", record.file_name,
               static_cast<int>(file->file_size), static_cast<int>(item->file_size));
    report(record, CMD_RESULT_SUCCESS, CMD_PHASE_IN_PROGRESS, "[agent manager] Chunk file install Start (%s)",
           record.file_name);
    if (map_setat(&g_patch_list_map, key.bytes, PATCH_KEY_LEN, item) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[patch_command] hash item malloc function Fail\n");
        return 0;
    }
    (void)entry.release(); // the map owns it now
    char part[PATCH_PART_PATH_SIZE];
    patch_part_path(item, part);
    cmd_journal_accept(&record, part);
    VKLOG_INFO(g_vklog.load(), "[set_patch_command] Adding an item to a hash map\n");
    return 0;
}

int del_command(const req_command_message_t *msg)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    cmd_info_t ack{};
    vk_strlcpy(ack.execution_id, msg->execution_id);
    vk_strlcpy(ack.agent_id, msg->agent_id);
    ack.agent_type = msg->agent_type;
    vk_strlcpy(ack.command_id, msg->command_id);
    ack.cmd_type = CMD_PATCH_STOP;
    VKLOG_INFO(g_vklog.load(), "[del_command] execution_id[%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s]\n",
               ack.execution_id, ack.agent_id, ack.agent_type, ack.cmd_type, cmd_type_name(ack.cmd_type));
    report(ack, CMD_RESULT_SUCCESS, CMD_PHASE_IN_PROGRESS, "[agent manager] Successfully received the command(%s)",
           cmd_type_name(ack.cmd_type));

    std::lock_guard<vklock_t> hash_guard(g_hash_lock);
    patch_item_t *item = patch_lookup_locked(msg->agent_id);
    if (item == nullptr) {
        report(ack, CMD_RESULT_SUCCESS, CMD_PHASE_DONE, "[agent manager] command(%s) to delete does not exist",
               cmd_type_name(ack.cmd_type));
        return 0;
    }
    bool remove_file = false;
    if (item->buffer_index >= 0 && item->buffer_index < CMD_INFO_COUNT) {
        std::lock_guard<vklock_t> command_guard(g_command_lock);
        const int idx = item->buffer_index;
        cmd_info_t &queued = g_cmd_info[idx];
        const bool same = strcmp(queued.execution_id, ack.execution_id) == 0;
        const char *line = same ? "[del_command] execution_id is same. idx[%d] msg_execution_id[%s] buf_execution_id[%s] "
                                  "status[%d][%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s]\n"
                                : "[del_command] execution_id is different. idx[%d] msg_execution_id[%s] "
                                  "buf_execution_id[%s] status[%d][%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s]\n";
        VKLOG_AT(g_vklog.load(), same ? VKLOG_LEVEL_INFO : VKLOG_LEVEL_ERROR, line, idx, ack.execution_id,
                 queued.execution_id, queued.status, cmd_status_name(queued.status), queued.agent_id,
                 queued.agent_type, queued.cmd_type, cmd_type_name(queued.cmd_type));
        if (!same) {
            report(ack, CMD_RESULT_FAIL, CMD_PHASE_IN_PROGRESS,
                   "[agent manager] execution id is incoreect (Expected execution id %s / received execution id %s)",
                   ack.execution_id, ack.execution_id);
            return 0;
        }
        if (queued.status == CMD_STATUS_USED) {
            VKLOG_INFO(g_vklog.load(), "[del_command] command is not running. idx[%d] status[%d][%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s]\n",
                       idx, queued.status, cmd_status_name(queued.status), queued.agent_id, queued.agent_type,
                       queued.cmd_type, cmd_type_name(queued.cmd_type));
            queued.status = CMD_STATUS_EMPTY;
            queued.cmd_type = CMD_PATCH_STOP;
            report(queued, CMD_RESULT_SUCCESS, CMD_PHASE_DONE,
                   "[agent manager] command(%s) delete success. No commands are in progress yet",
                   cmd_type_name(queued.cmd_type));
            memset(&queued, 0, sizeof(queued));
            cmd_journal_remove(ack.execution_id); // answered above
            remove_file = true; // the patch program will not run now
        } else if (queued.status == CMD_STATUS_RUN || queued.status == CMD_STATUS_STOP) {
            // The running script is ended by the script runner, asked through its stop
            // request; the command thread then reports the outcome under the stop's
            // identifiers (cmd_ring_stop_ids).
            VKLOG_INFO(g_vklog.load(), "[del_command] command is running. idx[%d] status[%d][%s] agent_id[%s] agent_type[%d] cmd_type[%d][%s]\n",
                       idx, queued.status, cmd_status_name(queued.status), queued.agent_id, queued.agent_type,
                       queued.cmd_type, cmd_type_name(queued.cmd_type));
            queued.status = CMD_STATUS_STOP;
            vk_strlcpy(queued.execution_id, msg->execution_id);
            vk_strlcpy(queued.command_id, msg->command_id);
            command_stop_request();
        }
    } else {
        VKLOG_INFO(g_vklog.load(), "[del_command] command(%s) delete success. Stop Patch File Download Chunk [%d] index\n",
                   cmd_type_name(ack.cmd_type), static_cast<int>(item->last_chunk_index));
        report(ack, CMD_RESULT_SUCCESS, CMD_PHASE_DONE,
               "[agent_manager] command(%s) delete success. Stop Patch File Download Chunk [%llu] index",
               cmd_type_name(ack.cmd_type), static_cast<unsigned long long>(item->last_chunk_index));
        remove_file = true;
    }
    patch_item_teardown(item, remove_file);
    return 0;
}

int write_file_from_chunk(const req_file_chunk_message_t *chunk)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    std::lock_guard<vklock_t> hash_guard(g_hash_lock);
    patch_item_t *item = patch_lookup_locked(chunk->agent_id);
    if (item == nullptr) {
        VKLOG_INFO(g_vklog.load(), "[write_file_from_chunk] no hash item in write_file_from_chunk\n");
        return 0;
    }
    cmd_info_t &record = item->command;
    if (strcmp(chunk->execution_id, record.execution_id) != 0) {
        VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] execution id of the chunk packet is incorrect. received execution_id[%s] item->execution_id[%s]\n",
                    chunk->execution_id, record.execution_id);
        cmd_info_t copy = record;
        memset(copy.agent_id, 0, sizeof(copy.agent_id));
        vk_strlcpy(copy.agent_id, chunk->agent_id);
        memset(copy.execution_id, 0, sizeof(copy.execution_id));
        vk_strlcpy(copy.execution_id, chunk->execution_id);
        report(copy, CMD_RESULT_FAIL, CMD_PHASE_IN_PROGRESS, "%s",
               "[agent manager] execution id of the chunk packet is incorrect.");
        return 0;
    }
    if (item->buffer_index != -1) {
        // The file is complete and its command queued: a repeated or extra chunk must not
        // touch either (chunk 1 again would truncate the file), but the DG hears why.
        VKLOG_ERROR(g_vklog.load(), "[write_file_from_chunk] transfer already complete. agent_id[%s] chunk[%llu/%llu] refused\n",
                    record.agent_id, static_cast<unsigned long long>(chunk->chunk_index),
                    static_cast<unsigned long long>(chunk->chunk_count));
        VKLOG_ERROR(g_vklog.load(), "[check_chunk_validity] The order of the chunk index is incorrect. chunk_index[%llu] item->chunk_index[%llu]\n",
                    static_cast<unsigned long long>(chunk->chunk_index),
                    static_cast<unsigned long long>(item->last_chunk_index));
        cmd_info_t answer = record;
        report(answer, CMD_RESULT_FAIL, CMD_PHASE_IN_PROGRESS,
               "[agent manager] chunk oreder is incoreect (Expected value %llu / received value %llu)",
               static_cast<unsigned long long>(item->last_chunk_index + 1),
               static_cast<unsigned long long>(chunk->chunk_index));
        return 0;
    }
    if (check_chunk_validity(chunk, item, &record) != 0 || item->file == nullptr) {
        record.result = CMD_RESULT_FAIL;
        send_res_command(&record, CMD_PHASE_IN_PROGRESS);
        patch_item_teardown(item, true);
        return 0;
    }
    size_t written = chunk->chunk_size > 0 ? fwrite(chunk->chunk_data.buf_p, 1, chunk->chunk_size, item->file) : 0;
    item->bytes_received += written;
    vk_sha256_update(sha_of(item), chunk->chunk_data.buf_p, written);
    VKLOG_INFO(g_vklog.load(), "[write_file_from_chunk] agent_id[%s] chunk[%d/%d] chunk_size[%d] write_size[%d/%d]\n",
               record.agent_id, static_cast<int>(chunk->chunk_index), static_cast<int>(chunk->chunk_count),
               static_cast<int>(chunk->chunk_size), static_cast<int>(item->bytes_received),
               static_cast<int>(item->file_size));
    if (chunk->chunk_index == chunk->chunk_count) {
        // Buffered bytes count as written until the file is closed: a full disk shows up
        // here, and is reported as a size mismatch.
        FILE *file = item->file;
        item->file = nullptr;
        bool closed = fclose(file) == 0;
        bool whole = closed && item->bytes_received == static_cast<uint64_t>(item->file_size);
        if (whole && !finish_part_file(item)) {
            whole = false;
        }
        if (!whole) {
            const long long announced = chunk->target_file_info != nullptr
                                            ? static_cast<long long>(chunk->target_file_info->file_size)
                                            : 0;
            VKLOG_ERROR(g_vklog.load(), "[write_file_from_chunk] reqFileChunkMessage file_size[%d]\n",
                        static_cast<int>(announced));
            VKLOG_ERROR(g_vklog.load(), "[write_file_from_chunk] file_name[%s] make failed. write size[%d] != file size[%d]\n",
                        record.file_name, static_cast<int>(item->bytes_received), static_cast<int>(item->file_size));
            report(record, CMD_RESULT_FAIL, CMD_PHASE_IN_PROGRESS, "[agent manager] file(%s) write size failed",
                   item->file_path);
            patch_item_teardown(item, true);
            return 0;
        }
        keep_patch_digest(item);
        report(record, CMD_RESULT_SUCCESS, CMD_PHASE_IN_PROGRESS, "[agent manager] file(%s) write success",
               item->file_path);
        record.status = CMD_STATUS_USED;
        std::lock_guard<vklock_t> command_guard(g_command_lock);
        item->buffer_index = cmd_ring_push_locked(record, "write_file_from_chunk");
        cmd_journal_accept(&record, nullptr); // the file has its name now
    }
    item->last_chunk_index++;
    return 0;
}
