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
#include <cstdlib>
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
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Polls `done` every 20 ms; false when it still fails after `timeout` (far above what the
// code under test needs, so only a real fault trips it on a loaded or sanitized run).
inline bool eventually(const std::function<bool()> &done,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20))
{
    auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// A fresh /tmp/<prefix>.XXXXXX (path empty when mkdtemp failed), removed with its contents.
struct temp_dir {
    std::string path;
    explicit temp_dir(const char *prefix)
    {
        std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
        if (mkdtemp(tmpl.data()) != nullptr)
            path = tmpl;
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
    std::vector<char *> av, ev;
    for (auto &a : argv)
        av.push_back(a.data());
    av.push_back(nullptr);
    for (auto &e : env)
        ev.push_back(e.data());
    ev.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.empty() ? "/dev/null" : out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.empty() ? "/dev/null" : err.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = -1;
    int ret = posix_spawn(&pid, path.empty() ? av[0] : path.c_str(), &actions, nullptr, av.data(),
                          env.empty() ? environ : ev.data());
    posix_spawn_file_actions_destroy(&actions);
    return ret == 0 ? pid : -1;
}

// A child process that lives until the object goes: then it is killed and reaped.
struct child_process {
    pid_t pid;
    explicit child_process(std::vector<std::string> argv, const std::string &path = "")
        : pid(spawn(std::move(argv), {}, "", "", path))
    {
    }
    ~child_process()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;
};

} // namespace daemon_support
