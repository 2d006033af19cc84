// Tests of the OS facts: the bounded getters and the CPU counts of this machine.
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

} // namespace
