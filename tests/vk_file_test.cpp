// The one way the agent opens a home file for reading. Refusals are reported (on standard error
// here: no log is set up); a missing file is not.
#include "vk_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "daemon_support.h"

namespace
{

using namespace daemon_support;

TEST(VkFile, OpenReadAcceptsOnlyRegularFiles)
{
    temp_dir dir("vk_file_test");
    const std::string d = dir.path + "/";
    const bool root = geteuid() == 0;
    for (const auto &[name, mode] : {std::pair{"regular", 0644}, {"loose", 0666}, {"foreign", 0644}}) {
        write_file(d + name, "id\n");
        ASSERT_EQ(chmod((d + name).c_str(), mode), 0);
    }
    ASSERT_EQ(mkfifo((d + "fifo").c_str(), 0600) + mkdir((d + "dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink("regular", (d + "link").c_str()), 0);
    ASSERT_TRUE(!root || chown((d + "foreign").c_str(), 1, 1) == 0); // another user's file
    const std::tuple<const char *, unsigned, int> rows[] = {
        // name, rules, errno (0: opened)
        {"regular", VK_OPEN_NOFOLLOW | VK_OPEN_ROOT_OWNED, 0},
        {"link", 0, 0},
        {"link", VK_OPEN_NOFOLLOW, ELOOP},
        {"fifo", 0, EINVAL},
        {"dir", VK_OPEN_NOFOLLOW, EINVAL},
        {"missing", VK_OPEN_NOFOLLOW, ENOENT},
        {"loose", VK_OPEN_ROOT_OWNED, root ? EPERM : 0},
        {"foreign", VK_OPEN_ROOT_OWNED, root ? EPERM : 0}};
    for (const auto &[name, rules, expected] : rows) {
        testing::internal::CaptureStderr();
        FILE *file = vk_fopen_read((d + name).c_str(), rules, "test");
        int err = file != nullptr ? 0 : errno;
        std::string reported = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, expected) << name << " rules " << rules;
        if (file != nullptr)
            fclose(file);
        // Refusals name the caller and the path; an open file or a missing one says nothing.
        EXPECT_EQ(contains(reported, "[test] file(" + d + name + ")"), expected != 0 && expected != ENOENT);
    }
}

} // namespace
