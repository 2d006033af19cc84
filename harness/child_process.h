// Child processes for the tests and the benchmarks: started with posix_spawn so that their
// standard descriptors never hold the runner's output open, and killed and reaped by an owner
// object.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char **environ;

namespace harness
{

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

} // namespace harness
