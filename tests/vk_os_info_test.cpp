// Tests of the OS facts: the bounded getters, and the physical CPU count from cpuinfo-format
// files (the 9-character "physical " match, the logical-count shortcut, stopping at the
// logical count, a missing file).
#include "vk_os_info.h"

#include "daemon_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

// The host name and release reach the DG (the scenario tests check them there); here the
// getters' bound, and the CPU counts nothing reports yet.
TEST(OsInfo, BoundedGettersAndCpuCounts)
{
    ASSERT_EQ(init_os_info(), 0);
    utsname uts{};
    ASSERT_EQ(uname(&uts), 0);
    char buf[8];
    memset(buf, 'Z', sizeof(buf));
    get_os_info_os_version(buf, 3);
    EXPECT_EQ(std::string(buf), std::string(uts.release, 2));
    EXPECT_EQ(buf[3], 'Z');
    int err = 0;
    ASSERT_EQ(init_cpu_core(&err), 0);
    EXPECT_EQ(get_os_info_logical_cpu_count(), sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_LE(get_os_info_physical_cpu_count(), get_os_info_logical_cpu_count());
}

TEST(OsInfo, PhysicalCpuCountFromCpuinfoFiles)
{
    daemon_support::temp_dir dir("vk_os_info_test");
    ASSERT_FALSE(dir.path.empty());
    const struct {
        const char *text; // null: no file
        int logical;
        int expected;
    } cases[] = {
        {"physical id\t: 0\nphysical id\t: 0\nphysical id\t: 1\nphysical id\t: 1\n", 4, 2},
        {"processor\t: 0\nmodel name\t: x\n", 4, 0},
        {"physical id : 5\nphysical id : 6\nphysical id : 7\n", 2, 2}, // stops at the logical count
        {"physical xx: 3\nphysical id\nphysical id:", 4, 1},           // 9 characters compared; no token
        {"physical id : 4294967297\nphysical id : 1\n", 4, 1},         // low 32 bits: both are 1
        {nullptr, 1, 1},
        {"physical id : 0\n", 0, -20},
    };
    int n = 0;
    for (const auto &c : cases) {
        std::string path = dir.path + "/cpuinfo" + std::to_string(n++);
        if (c.text != nullptr)
            daemon_support::write_file(path, c.text);
        int err = 0;
        EXPECT_EQ(get_physical_cpu_count(path.c_str(), c.logical, &err), c.expected) << path;
    }
    int err = 0;
    EXPECT_EQ(get_physical_cpu_count((dir.path + "/missing").c_str(), 4, &err), -10);
    EXPECT_EQ(err, ENOENT);
}

} // namespace
