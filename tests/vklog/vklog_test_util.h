// Helpers shared by the vklog tests (tests/vklog/*.cpp): file access in a per-test temporary
// directory, configuration setters that fail the test on a rejected value, a UDP receiver.
#pragma once

#include "vklog_internal.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace vt
{

inline std::string read_file(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

inline void write_file(const std::string &path, const std::string &text, time_t mtime = 0)
{
    std::ofstream(path, std::ios::binary) << text;
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(mtime == 0 ? 0 : utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

inline int set_rc(vklog_config_t *c, vklog_cfg_type_t key, const std::string &v)
{
    return vklog_config_set(c, key, static_cast<unsigned>(v.size()), v.c_str());
}

// Sets every key of `kv` on `c` (the test fails on a rejected value or a null `c`) and
// finishes it.
inline vklog_config_t *configure(vklog_config_t *c,
                                 std::initializer_list<std::pair<vklog_cfg_type_t, std::string>> kv)
{
    for (const auto &[key, value] : kv)
        EXPECT_EQ(set_rc(c, key, value), 0) << value;
    vklog_config_finish(c);
    return c;
}

// A clean library and environment, and an own temporary directory, for every test.
class TempDirTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        vklog_fini();
        unsetenv("OLV_DAEMON_VKLOG_DEACTIVATE");
        std::string tmpl = (std::filesystem::temp_directory_path() / "vklog_test_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override
    {
        vklog_fini();
        std::error_code ec; // best effort: a left-over directory fails nothing
        std::filesystem::remove_all(dir_, ec);
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    bool exists(const std::string &name) const { return access(path(name).c_str(), F_OK) == 0; }

    std::string dir_;
};

// A UDP socket bound to a free loopback port.
struct udp_receiver {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port = 0;
    udp_receiver()
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~udp_receiver() { close(fd); }
    // One datagram, or empty after `ms` milliseconds.
    std::vector<unsigned char> recv_one(int ms) const
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1)
            return {};
        std::vector<unsigned char> buf(65536);
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
};

} // namespace vt
