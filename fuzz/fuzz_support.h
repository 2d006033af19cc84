// Shared by the fuzz targets: a private temporary directory made once per process and removed
// at exit, whole-file writes, directory listings, token replacement for the expansion checks,
// the registry's invariants, and a check that aborts with its line so libFuzzer records the input.
#pragma once

#include "global_var.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#define FUZZ_CHECK(cond) ((cond) ? void() : fuzz_support::check_failed(#cond, __LINE__))
#define TERMINATED(field) (strnlen(field, sizeof(field)) < sizeof(field))

namespace fuzz_support
{

inline std::string &temp_dir_path()
{
    static std::string path;
    return path;
}

inline void remove_temp_dir()
{
    if (!temp_dir_path().empty())
        nftw(temp_dir_path().c_str(), [](const char *path, const struct stat *, int, FTW *) { return remove(path); },
             16, FTW_DEPTH | FTW_PHYS);
}

// A failed check: the directory goes too (libFuzzer ends with abort, not exit).
[[noreturn]] inline void check_failed(const char *condition, int line)
{
    std::fprintf(stderr, "check failed: %s (line %d)\n", condition, line);
    remove_temp_dir();
    std::abort();
}

// The process's private quil_fuzz_<name>.XXXXXX under /dev/shm when writable (the targets
// write files on every run: memory is much faster than a disk), else /tmp; made on the first
// call, removed at a normal exit or a failed check. Aborts when it cannot be made.
inline const std::string &temp_dir(const char *name)
{
    std::string &path = temp_dir_path();
    if (path.empty()) {
        std::string pattern = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/quil_fuzz_" +
                              name + ".XXXXXX";
        FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr);
        path = pattern;
        atexit(remove_temp_dir);
    }
    return path;
}

inline void make_dir(const std::string &path)
{
    FUZZ_CHECK(mkdir(path.c_str(), 0700) == 0 || errno == EEXIST);
}

// Replaces the file with exactly these bytes.
inline void write_file(const std::string &path, const void *data, size_t size)
{
    FILE *f = fopen(path.c_str(), "we");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, f) == size && fclose(f) == 0);
}

// Names in a directory, without "." and "..". Empty when it cannot be opened.
inline std::vector<std::string> list_dir(const std::string &path)
{
    std::vector<std::string> names;
    if (DIR *dir = opendir(path.c_str())) {
        while (const dirent *entry = readdir(dir))
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                names.emplace_back(entry->d_name);
        closedir(dir);
    }
    return names;
}

// Standard input from /dev/null, so that a path naming it (or a terminal) cannot block a
// reader under test.
inline void detach_stdin()
{
    FUZZ_CHECK(freopen("/dev/null", "r", stdin) != nullptr);
}

using tokens_t = std::vector<std::pair<std::string, std::string>>;

// text with each occurrence of a key of `tokens` (the first key that matches) replaced by its
// value, in one pass from the left: what a value brings in is not looked at again.
inline std::string replace_tokens(std::string_view text, const tokens_t &tokens)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        auto hit = tokens.begin();
        while (hit != tokens.end() && !text.substr(i).starts_with(hit->first))
            ++hit;
        if (hit == tokens.end())
            out += text[i++];
        else
            out += hit->second, i += hit->first.size();
    }
    return out;
}

// The target agent registry: at most 64 distinct, terminated ids. Caller holds g_json_lock.
inline void check_registry()
{
    FUZZ_CHECK(g_json_agent_count >= 0 && g_json_agent_count <= MAX_AGENT_COUNT);
    for (int i = 0; i < g_json_agent_count; i++) {
        const char *id = g_json_agent_info[i].agent_id;
        FUZZ_CHECK(strnlen(id, sizeof(g_json_agent_info[i].agent_id)) <= AGENT_ID_LEN);
        for (int j = 0; j < i; j++)
            FUZZ_CHECK(strcmp(id, g_json_agent_info[j].agent_id) != 0);
    }
}

} // namespace fuzz_support
