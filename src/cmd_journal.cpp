// cmd_journal: see cmd_journal.h. The records live in a fixed table under one lock; the file
// is the table written out whole. File format (text, one record a line after the header):
//
//   quil-manager-agent command journal 1
//   <A|D> TAB execution_id TAB command_id TAB cmd_type TAB agent_id TAB agent_type TAB result
//         TAB part_path TAB result_message
//
// A: accepted, no result yet; D: done, result to be sent. Tabs, line feeds and backslashes in
// the texts are written as \t, \n and \\. The file is untrusted on reading: every field is
// bounded, and a part path is used only when it names a ".part" file directly in the home's tmp.
#include "cmd_journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "global_var.h"
#include "vk_file.h"
#include "vk_raii.h"
#include "vk_string.h"
#include "vklog.h"

namespace
{

constexpr std::string_view k_header = "quil-manager-agent command journal 1";
constexpr size_t k_file_max = 4u << 20; // far above 128 full records

// What a done result carries: the fields of cmd_info_t that send_res_command sends.
struct journal_answer_t {
    char execution_id[64];
    char command_id[64];
    char agent_id[64];
    int32_t cmd_type;
    int32_t agent_type;
    int32_t result;
    char *result_message; // malloc'd once done (null before); at most CMD_RESULT_MESSAGE_SIZE - 1 characters
};

struct journal_rec_t {
    bool used;
    bool done;
    journal_answer_t answer;
    char key[64];
    char part_path[PATCH_PART_PATH_SIZE];
};

// Empties a record, freeing its text.
void clear_rec(journal_rec_t *r)
{
    free(r->answer.result_message);
    memset(r, 0, sizeof(*r));
}

// Gives a record its result text (cut to the result field's size). False without memory.
bool set_text(journal_rec_t *r, std::string_view text)
{
    if (text.size() >= CMD_RESULT_MESSAGE_SIZE)
        text = text.substr(0, CMD_RESULT_MESSAGE_SIZE - 1);
    char *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy == nullptr)
        return false;
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    free(r->answer.result_message);
    r->answer.result_message = copy;
    return true;
}

// The ids and type a done result carries, from a command record.
void copy_ids(journal_answer_t *out, const cmd_info_t &in)
{
    vk_strlcpy(out->execution_id, in.execution_id);
    vk_strlcpy(out->command_id, in.command_id);
    vk_strlcpy(out->agent_id, in.agent_id);
    out->cmd_type = in.cmd_type;
    out->agent_type = in.agent_type;
}

const char *text_of(const journal_rec_t &r)
{
    return r.done && r.answer.result_message != nullptr ? r.answer.result_message : "";
}

std::mutex s_lock;
std::mutex s_send_lock; // cmd_journal_send_guard
journal_rec_t *s_recs = nullptr; // CMD_JOURNAL_MAX records, allocated by cmd_journal_open
bool s_interrupted_answered = false;
bool s_write_failed = false; // logged once until a write succeeds

void journal_path(char (&out)[VK_PATH_SIZE + 32], const char *suffix = "")
{
    snprintf(out, sizeof(out), "%s/data/cmd_journal%s", g_vk_manager_home, suffix);
}

// ---- writing ------------------------------------------------------------------------------

struct out_buffer {
    char *data;
    size_t size, len = 0;
    bool full = false;
    void put(char c)
    {
        if (len + 1 < size)
            data[len++] = c;
        else
            full = true;
    }
    void text(std::string_view s)
    {
        for (char c : s) {
            if (c == '\t' || c == '\n' || c == '\\') {
                put('\\');
                put(c == '\t' ? 't' : c == '\n' ? 'n' : '\\');
            } else {
                put(c);
            }
        }
    }
    void number(long long v)
    {
        char digits[24];
        auto [end, ec] = std::to_chars(digits, digits + sizeof(digits), v);
        text(std::string_view(digits, static_cast<size_t>(end - digits)));
    }
};

// Writes the table out. Caller holds s_lock.
void save_locked()
{
    // Every character may double when escaped.
    size_t size = k_header.size() + 2;
    for (int i = 0; i < CMD_JOURNAL_MAX; i++)
        if (s_recs[i].used)
            size += 2 * (strlen(s_recs[i].answer.execution_id) + strlen(s_recs[i].answer.command_id) +
                         strlen(s_recs[i].answer.agent_id) + strlen(s_recs[i].part_path) + strlen(s_recs[i].key) +
                         strlen(text_of(s_recs[i]))) +
                    80;
    auto data = vk_alloc_array<char>(size);
    if (!data)
        return;
    out_buffer b{data.get(), size};
    b.text(k_header);
    b.put('\n');
    for (int i = 0; i < CMD_JOURNAL_MAX; i++) {
        const journal_rec_t &r = s_recs[i];
        if (!r.used)
            continue;
        b.put(r.done ? 'D' : 'A');
        for (std::string_view field : {std::string_view(r.answer.execution_id), std::string_view(r.answer.command_id)}) {
            b.put('\t');
            b.text(field);
        }
        b.put('\t');
        b.number(r.answer.cmd_type);
        b.put('\t');
        b.text(r.answer.agent_id);
        b.put('\t');
        b.number(r.answer.agent_type);
        b.put('\t');
        b.number(r.answer.result);
        b.put('\t');
        b.text(r.part_path);
        b.put('\t');
        b.text(text_of(r));
        b.put('\t');
        b.text(r.key);
        b.put('\n');
    }
    char path[VK_PATH_SIZE + 32];
    journal_path(path);
    if (vk_write_file_atomic(path, b.data, b.len, 0600, false) == 0) {
        s_write_failed = false;
        return;
    }
    if (!s_write_failed)
        VKLOG_ERROR(g_vklog.load(), "[cmd_journal] cannot write %s: %s\n", path, strerror(errno));
    s_write_failed = true;
}

journal_rec_t *find_locked(const char *key)
{
    for (int i = 0; s_recs != nullptr && i < CMD_JOURNAL_MAX; i++)
        if (s_recs[i].used && strcmp(s_recs[i].key, key) == 0)
            return &s_recs[i];
    return nullptr;
}

// ---- reading ------------------------------------------------------------------------------

// Unescapes field into out (size bytes, terminated). False when it does not fit or holds a
// bad escape.
bool unescape(std::string_view field, char *out, size_t size)
{
    size_t o = 0;
    for (size_t i = 0; i < field.size(); i++) {
        char c = field[i];
        if (c == '\\') {
            if (++i == field.size())
                return false;
            c = field[i] == 't' ? '\t' : field[i] == 'n' ? '\n' : field[i] == '\\' ? '\\' : '\0';
            if (c == '\0')
                return false;
        }
        if (o + 1 >= size)
            return false;
        out[o++] = c;
    }
    out[o] = '\0';
    return true;
}

bool number(std::string_view field, int32_t *out)
{
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), *out);
    return ec == std::errc() && end == field.data() + field.size();
}

// A part path the journal may remove: "<home>/tmp/<name>.part" with no further slash.
bool part_path_ok(const char *path)
{
    if (path[0] == '\0')
        return true;
    char tmp[VK_PATH_SIZE + 8];
    snprintf(tmp, sizeof(tmp), "%s/tmp/", g_vk_manager_home);
    std::string_view p(path), prefix(tmp);
    if (!p.starts_with(prefix) || !p.ends_with(PATCH_PART_SUFFIX))
        return false;
    std::string_view name = p.substr(prefix.size());
    return name.size() > sizeof(PATCH_PART_SUFFIX) - 1 && name.find('/') == std::string_view::npos;
}

bool parse_line(std::string_view line, journal_rec_t *r, char (&text)[CMD_RESULT_MESSAGE_SIZE])
{
    std::string_view f[10];
    int n = 0;
    for (size_t start = 0;; n++) {
        size_t tab = line.find('\t', start);
        if (n == 10)
            return false;
        f[n] = line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start);
        if (tab == std::string_view::npos) {
            n++;
            break;
        }
        start = tab + 1;
    }
    journal_answer_t &a = r->answer;
    if (n != 10 || (f[0] != "A" && f[0] != "D"))
        return false;
    r->done = f[0] == "D";
    r->used = true;
    return unescape(f[1], a.execution_id, sizeof(a.execution_id)) && a.execution_id[0] != '\0' &&
           unescape(f[2], a.command_id, sizeof(a.command_id)) && number(f[3], &a.cmd_type) &&
           unescape(f[4], a.agent_id, sizeof(a.agent_id)) && number(f[5], &a.agent_type) &&
           number(f[6], &a.result) && unescape(f[7], r->part_path, sizeof(r->part_path)) &&
           part_path_ok(r->part_path) && unescape(f[8], text, sizeof(text)) &&
           unescape(f[9], r->key, sizeof(r->key)) && r->key[0] != '\0' && (!r->done || set_text(r, text));
}

// Parses the file's text into the table. False when any of it does not parse.
bool parse_locked(std::string_view text)
{
    if (!text.starts_with(k_header) || text.size() == k_header.size() || text[k_header.size()] != '\n')
        return false;
    text.remove_prefix(k_header.size() + 1);
    auto message = vk_alloc_array<char[CMD_RESULT_MESSAGE_SIZE]>(1);
    if (!message)
        return false;
    for (int i = 0; !text.empty(); i++) {
        size_t end = text.find('\n');
        if (end == std::string_view::npos || i == CMD_JOURNAL_MAX ||
            !parse_line(text.substr(0, end), &s_recs[i], message[0]))
            return false;
        text.remove_prefix(end + 1);
    }
    return true;
}

void set_aside(const char *why)
{
    char path[VK_PATH_SIZE + 32], aside[VK_PATH_SIZE + 32];
    journal_path(path);
    journal_path(aside, ".damaged");
    int moved = rename(path, aside);
    VKLOG_ERROR(g_vklog.load(), "[cmd_journal] %s is damaged (%s); %s. The journal starts empty.\n", path, why,
                moved == 0 ? "set aside as cmd_journal.damaged" : "it could not be set aside");
}

} // namespace

int cmd_journal_open()
{
    std::lock_guard<std::mutex> guard(s_lock);
    if (s_recs == nullptr) {
        s_recs = static_cast<journal_rec_t *>(calloc(CMD_JOURNAL_MAX, sizeof(journal_rec_t)));
        if (s_recs == nullptr) {
            VKLOG_ERROR(g_vklog.load(), "[cmd_journal] no memory for the journal; commands are not journaled.\n");
            return 0;
        }
    }
    for (int i = 0; i < CMD_JOURNAL_MAX; i++)
        if (s_recs[i].used || s_recs[i].answer.result_message != nullptr)
            clear_rec(&s_recs[i]);
    s_interrupted_answered = false;
    char path[VK_PATH_SIZE + 32];
    journal_path(path);
    vk_unique_fd fd(vk_open_read(path, VK_OPEN_NOFOLLOW, "cmd_journal_open"));
    if (fd.fd < 0) {
        if (errno != ENOENT)
            set_aside("not a regular file");
        return 0;
    }
    struct stat st {};
    if (fstat(fd.fd, &st) != 0 || static_cast<size_t>(st.st_size) > k_file_max) {
        set_aside("too large");
        return 0;
    }
    auto text = vk_alloc_array<char>(static_cast<size_t>(st.st_size) + 1);
    size_t len = 0;
    for (ssize_t n = 1; text && n > 0 && len < static_cast<size_t>(st.st_size); len += n > 0 ? static_cast<size_t>(n) : 0)
        n = read(fd.fd, text.get() + len, static_cast<size_t>(st.st_size) - len);
    if (!text || !parse_locked(std::string_view(text.get(), len))) {
        for (int i = 0; i < CMD_JOURNAL_MAX; i++)
            clear_rec(&s_recs[i]);
        set_aside("it does not parse");
        return 0;
    }
    int count = 0;
    for (int i = 0; i < CMD_JOURNAL_MAX; i++)
        count += s_recs[i].used ? 1 : 0;
    if (count > 0)
        VKLOG_INFO(g_vklog.load(), "[cmd_journal] %d command(s) of the last run still to answer.\n", count);
    return count;
}

void cmd_journal_accept(const cmd_info_t *record, const char *part_path)
{
    std::lock_guard<std::mutex> guard(s_lock);
    if (s_recs == nullptr || record->execution_id[0] == '\0')
        return;
    journal_rec_t *r = find_locked(record->execution_id);
    for (int i = 0; r == nullptr && i < CMD_JOURNAL_MAX; i++)
        if (!s_recs[i].used)
            r = &s_recs[i];
    if (r == nullptr) {
        // Full: the oldest record without a result gives way (the ring it mirrors has
        // overwritten that command too).
        for (int i = 0; r == nullptr && i < CMD_JOURNAL_MAX; i++)
            if (!s_recs[i].done)
                r = &s_recs[i];
        if (r == nullptr)
            return;
    }
    clear_rec(r);
    r->used = true;
    vk_strlcpy(r->key, record->execution_id);
    copy_ids(&r->answer, *record);
    vk_strlcpy(r->part_path, part_path != nullptr ? part_path : "");
    save_locked();
}

void cmd_journal_done(const char *key, const cmd_info_t *answer)
{
    std::lock_guard<std::mutex> guard(s_lock);
    journal_rec_t *r = find_locked(key);
    if (r == nullptr)
        return;
    if (!set_text(r, answer->result_message)) {
        VKLOG_ERROR(g_vklog.load(), "[cmd_journal] no memory for the result of %s; not journaled.\n", key);
        return;
    }
    r->done = true;
    copy_ids(&r->answer, *answer);
    r->answer.result = answer->result;
    r->part_path[0] = '\0';
    save_locked();
}

void cmd_journal_remove(const char *key)
{
    std::lock_guard<std::mutex> guard(s_lock);
    journal_rec_t *r = find_locked(key);
    if (r == nullptr)
        return;
    clear_rec(r);
    save_locked();
}

int cmd_journal_to_send(char (*keys)[64], int max)
{
    std::lock_guard<std::mutex> guard(s_lock);
    if (s_recs == nullptr)
        return 0;
    if (!s_interrupted_answered) {
        s_interrupted_answered = true;
        bool changed = false;
        for (int i = 0; i < CMD_JOURNAL_MAX; i++) {
            journal_rec_t &r = s_recs[i];
            if (!r.used || r.done)
                continue;
            char text[160];
            snprintf(text, sizeof(text),
                     "[agent manager] The agent stopped while the command was running. (execution_id:%s)",
                     r.answer.execution_id);
            if (!set_text(&r, text))
                continue; // no memory: left as it is, without an answer
            r.done = changed = true;
            r.answer.result = CMD_RESULT_FAIL;
            if (r.part_path[0] != '\0' && unlink(r.part_path) == 0)
                VKLOG_INFO(g_vklog.load(), "[cmd_journal] removed %s of the interrupted transfer %s\n", r.part_path,
                           r.answer.execution_id);
            r.part_path[0] = '\0';
        }
        if (changed)
            save_locked();
    }
    int n = 0;
    for (int i = 0; i < CMD_JOURNAL_MAX && n < max; i++)
        if (s_recs[i].used && s_recs[i].done)
            vk_strlcpy(keys[n++], s_recs[i].key);
    return n;
}

int cmd_journal_answer(const char *key, cmd_info_t *out)
{
    std::lock_guard<std::mutex> guard(s_lock);
    const journal_rec_t *r = find_locked(key);
    if (r == nullptr || !r->done)
        return -1;
    vk_strlcpy(out->execution_id, r->answer.execution_id);
    vk_strlcpy(out->command_id, r->answer.command_id);
    vk_strlcpy(out->agent_id, r->answer.agent_id);
    out->cmd_type = r->answer.cmd_type;
    out->agent_type = r->answer.agent_type;
    out->result = r->answer.result;
    vk_strlcpy(out->result_message, text_of(*r));
    return 0;
}

cmd_journal_send_guard::cmd_journal_send_guard()
{
    s_send_lock.lock();
}

cmd_journal_send_guard::~cmd_journal_send_guard()
{
    s_send_lock.unlock();
}

int cmd_journal_count()
{
    std::lock_guard<std::mutex> guard(s_lock);
    int count = 0;
    for (int i = 0; s_recs != nullptr && i < CMD_JOURNAL_MAX; i++)
        count += s_recs[i].used ? 1 : 0;
    return count;
}
