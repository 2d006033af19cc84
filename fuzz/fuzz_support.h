// Shared by the fuzz targets: a private temporary directory made once per process and removed
// at exit, whole-file writes, directory listings, token replacement for the expansion
// checks, and a check that aborts with its line so libFuzzer records the input.
#pragma once

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

namespace fuzz_support
{

[[noreturn]] void check_failed(const char *condition, int line);

inline int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    remove(path);
    return 0;
}

inline std::string &temp_dir_path()
{
    static std::string path;
    return path;
}

inline bool keep_temp_dir()
{
    const char *keep = getenv("QUIL_FUZZ_KEEP_TMPDIR"); // "1": left for a look afterwards
    return keep != nullptr && strcmp(keep, "1") == 0;
}

inline void remove_temp_dir()
{
    if (!temp_dir_path().empty() && !keep_temp_dir())
        nftw(temp_dir_path().c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

// A failed check: the directory goes too (libFuzzer ends with abort, not exit).
[[noreturn]] inline void check_failed(const char *condition, int line)
{
    std::fprintf(stderr, "check failed: %s (line %d)\n", condition, line);
    remove_temp_dir();
    std::abort();
}

// The process's private <base>/quil_fuzz_<name>.XXXXXX, made on the first call and removed
// at a normal exit or a failed check (kept when QUIL_FUZZ_KEEP_TMPDIR is "1"). The base is
// $QUIL_FUZZ_TMPDIR, else /dev/shm when writable (the targets write files on every run:
// memory is much faster than a disk), else /tmp. Aborts when it cannot be made.
inline const std::string &temp_dir(const char *name)
{
    std::string &path = temp_dir_path();
    if (path.empty()) {
        const char *base = getenv("QUIL_FUZZ_TMPDIR");
        if (base == nullptr || base[0] == '\0')
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = std::string(base) + "/quil_fuzz_" + name + ".XXXXXX";
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
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FUZZ_CHECK(fd >= 0);
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t done = 0; done < size;) {
        ssize_t n = write(fd, p + done, size - done);
        FUZZ_CHECK(n > 0);
        done += static_cast<size_t>(n);
    }
    close(fd);
}

// Names in a directory, without "." and "..". Empty when it cannot be opened.
inline std::vector<std::string> list_dir(const std::string &path)
{
    std::vector<std::string> names;
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    closedir(dir);
    return names;
}

// Standard input from /dev/null, so that a path naming it (or a terminal) cannot block a
// reader under test.
inline void detach_stdin()
{
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        dup2(fd, STDIN_FILENO);
        close(fd);
    }
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

} // namespace fuzz_support
