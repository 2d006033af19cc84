// Shared helpers of the tests: a private temporary directory, whole-file reads and writes,
// polling with a time-out, and the child processes of harness/child_process.h.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"

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

// Child processes: started without the runner's descriptors, killed and reaped by an owner.
using harness::child_process;
using harness::spawn;

} // namespace daemon_support
