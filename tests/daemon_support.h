// Shared helpers of the daemon life-cycle and configuration tests: a private temporary
// directory removed on the way out, whole-file reads and writes, polling with a time-out, and
// child processes whose standard descriptors never hold the test runner's output open.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace daemon_support
{

inline std::string read_file(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

inline bool contains(const std::string &text, const std::string &what)
{
    return text.find(what) != std::string::npos;
}

inline void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Polls `done` every 20 ms; false when it still fails after `timeout` (far above what the
// code under test needs, so only a real fault trips it on a loaded or sanitized run).
inline bool eventually(const std::function<bool()> &done,
                       std::chrono::seconds timeout = std::chrono::seconds(20))
{
    auto end = std::chrono::steady_clock::now() + timeout;
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
        if (std::chrono::steady_clock::now() > end)
            return false;
    return true;
}

// A fresh /tmp/<prefix>.XXXXXX (path empty when mkdtemp failed), removed with its contents.
struct temp_dir {
    std::string path;
    explicit temp_dir(const char *prefix) : path(std::string("/tmp/") + prefix + ".XXXXXX")
    {
        if (mkdtemp(path.data()) == nullptr)
            path.clear();
    }
    ~temp_dir()
    {
        if (!path.empty())
            (void)!system(("rm -rf '" + path + "'").c_str());
    }
};

// Starts `path` (empty: argv[0]) with argv and `env` (empty: this process's environment);
// standard input is /dev/null, output and error go to the files named (/dev/null when empty).
// Returns the child's pid, or -1 when it could not be started.
inline pid_t spawn(std::vector<std::string> argv, std::vector<std::string> env = {},
                   const std::string &out = "", const std::string &err = "", const std::string &path = "")
{
    auto pointers = [](std::vector<std::string> &list) {
        std::vector<char *> p;
        for (auto &s : list)
            p.push_back(s.data());
        p.push_back(nullptr);
        return p;
    };
    std::vector<char *> av = pointers(argv), ev = pointers(env);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    const std::string *files[] = {&out, &err};
    for (int fd : {1, 2})
        posix_spawn_file_actions_addopen(&actions, fd,
                                         files[fd - 1]->empty() ? "/dev/null" : files[fd - 1]->c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    int ret = posix_spawn(&pid, path.empty() ? av[0] : path.c_str(), &actions, nullptr, av.data(),
                          env.empty() ? environ : ev.data());
    posix_spawn_file_actions_destroy(&actions);
    return ret == 0 ? pid : -1;
}

// A child process (its pid from spawn) that lives until the object goes: then it is killed
// and reaped.
struct child_process {
    pid_t pid;
    ~child_process()
    {
        if (pid > 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
    }
};

} // namespace daemon_support
