// Tests of the file side of vklog: the line header, the per-line file writer, the backup
// ring with its restart rule and clean-up, a failed rotation, and the hex dump. Every test
// works in its own temporary directory.
#include "vklog_internal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary) << text;
}

void set_mtime(const std::string &path, time_t sec)
{
    timespec times[2] = {{sec, 0}, {sec, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class VklogFile : public testing::Test
{
  protected:
    void SetUp() override
    {
        vklog_fini();
        unsetenv("OLV_DAEMON_VKLOG_DEACTIVATE");
        std::string tmpl = (fs::temp_directory_path() / "vklog_file_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override
    {
        vklog_fini();
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // A finished file configuration `name` in the test directory (log level trace).
    vklog_config_t *file_config(const std::string &name, unsigned backups = 3, unsigned limit_mib = 1)
    {
        vklog_config_t *c = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
        set(c, VKLOG_CFG_TYPE_NAME, name);
        set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, "file");
        set(c, VKLOG_CFG_TYPE_DIRECTORY, dir_);
        set(c, VKLOG_CFG_TYPE_FILENAME, "agent.log");
        set(c, VKLOG_CFG_TYPE_LEVEL, "trace");
        set(c, VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, std::to_string(limit_mib));
        set(c, VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, std::to_string(backups));
        vklog_config_finish(c);
        return c;
    }
    vklog_t *category(vklog_config_t *c)
    {
        std::string name = c->name;
        int err = 0;
        EXPECT_EQ(vklog_apply_config(c, &err), 0);
        EXPECT_EQ(err, 0);
        return vklog_get_category(name.c_str());
    }
    static void set(vklog_config_t *c, vklog_cfg_type_t key, const std::string &v)
    {
        ASSERT_EQ(vklog_config_set(c, key, static_cast<unsigned>(v.size()), v.c_str()), 0) << v;
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    bool exists(const std::string &name) const { return access(path(name).c_str(), F_OK) == 0; }

    std::string dir_;
};

// ---- header -------------------------------------------------------------------------

std::string header(int level, unsigned opt, char us, long line = 42)
{
    char buf[256];
    int n = vl_set_header(level, opt, us, "src/a.cpp", 9, "fn", 2, line, buf, sizeof(buf));
    EXPECT_GE(n, 0);
    EXPECT_EQ(static_cast<size_t>(n), strlen(buf));
    return buf;
}

// `text` against `shape`, where 'd' stands for any digit and everything else for itself.
bool shaped(const std::string &text, const std::string &shape)
{
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); i++)
        if (shape[i] == 'd' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
            return false;
    return true;
}

TEST(VklogHeader, ItemsInOrderEachInBrackets)
{
    std::string pid = std::to_string(getpid());
    EXPECT_TRUE(shaped(header(5, 67, 1), "[dd dd:dd:dd.dddddd][" + std::string(pid.size(), 'd') + "][INFO]"))
        << header(5, 67, 1);
    EXPECT_TRUE(shaped(header(5, 1, 0), "[dd dd:dd:dd]"));
    char tid[32];
    snprintf(tid, sizeof(tid), "%lx", static_cast<unsigned long>(pthread_self()));
    EXPECT_EQ(header(5, 6, 0), "[" + pid + ":" + tid + "]");
    EXPECT_EQ(header(5, 4, 0), std::string("[") + tid + "]");
    EXPECT_EQ(header(2, 64, 0), "[ERRO]");
    EXPECT_EQ(header(8, 64, 0), "[null]");
    EXPECT_EQ(header(0, 64, 0), "[NONE]");
    EXPECT_EQ(header(1, 8, 0), "[src/a.cpp]");
    EXPECT_EQ(header(1, 16, 0), "[fn]");
    EXPECT_EQ(header(1, 24, 0), "[src/a.cpp:fn]");
    EXPECT_EQ(header(1, 32, 0), "[42]");
    EXPECT_EQ(header(1, 40, 0), "[src/a.cpp:42]");
    EXPECT_EQ(header(1, 48, 0), "[fn:42]");
    EXPECT_EQ(header(7, 56 | 64, 0), "[TRAC][src/a.cpp:fn:42]");
    EXPECT_EQ(header(7, 0, 0), "");
}

TEST(VklogHeader, RefusesSpaceTooSmall)
{
    char buf[32];
    EXPECT_EQ(vl_set_header(5, 1, 1, nullptr, 0, nullptr, 0, 0, buf, 20), -1); // 20 characters + terminator
    EXPECT_EQ(vl_set_header(5, 1, 1, nullptr, 0, nullptr, 0, 0, buf, 21), 20);
    EXPECT_EQ(vl_set_header(5, 64, 0, nullptr, 0, nullptr, 0, 0, buf, 6), -1);
    EXPECT_EQ(vl_set_header(5, 64, 0, nullptr, 0, nullptr, 0, 0, buf, 7), 6);
    EXPECT_EQ(vl_set_header(5, 64, 0, nullptr, 0, nullptr, 0, 0, nullptr, 7), -1);
    EXPECT_EQ(vl_set_header_with_format(5, 64, 0, "abc", 3, nullptr, 0, nullptr, 0, 0, buf, 10), 9);
    EXPECT_STREQ(buf, "[INFO]abc");
    EXPECT_EQ(vl_set_header_with_format(5, 64, 0, "abcd", 4, nullptr, 0, nullptr, 0, 0, buf, 10), -14);
}

// ---- writing lines ----------------------------------------------------------------

TEST_F(VklogFile, LinesPassTheLevelFilterAndReachTheFile)
{
    vklog_config_t *c = file_config("filter");
    set(c, VKLOG_CFG_TYPE_LEVEL, "info");
    set(c, VKLOG_CFG_TYPE_HEADER_FLAG, "level,function");
    vklog_t *cat = category(c);
    ASSERT_NE(cat, nullptr);
    VKLOG_INFO(cat, "[%s] one %d\n", "t", 1);
    VKLOG_DEBUG(cat, "filtered\n");
    VKLOG_ERROR(cat, "two\n");
    VKLOG_INFO(static_cast<vklog_t *>(nullptr), "nowhere\n");
    EXPECT_EQ(read_file(path("agent.log")), "[INFO][TestBody][t] one 1\n[ERRO][TestBody]two\n");
    EXPECT_EQ(vklog(nullptr, "f", 1, "g", 1, 1, 5, "x"), -1);
}

TEST_F(VklogFile, LongMessageIsCutToTheLineBuffer)
{
    vklog_t *cat = category(file_config("long"));
    std::string big(20000, 'm');
    ASSERT_EQ(vklog(cat, "f", 1, "g", 1, 1, 5, "%s", big.c_str()), 0);
    std::string text = read_file(path("agent.log"));
    EXPECT_EQ(text.size(), VL_LINE_BUFFER_SIZE - 1);
    EXPECT_EQ(text.substr(text.size() - 10), std::string(10, 'm'));
}

TEST_F(VklogFile, MissingDirectoryIsMadeOneLevelOnly)
{
    vklog_config_t *c = file_config("mkdir");
    set(c, VKLOG_CFG_TYPE_DIRECTORY, dir_ + "/new");
    vklog_config_finish(c);
    vklog_t *cat = category(c);
    VKLOG_ERROR(cat, "made\n");
    EXPECT_NE(read_file(path("new/agent.log")).find("made\n"), std::string::npos);

    vklog_config_t *deep = file_config("mkdir");
    set(deep, VKLOG_CFG_TYPE_DIRECTORY, dir_ + "/a/b");
    vklog_config_finish(deep);
    category(deep);
    testing::internal::CaptureStderr();
    VKLOG_ERROR(cat, "lost\n");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("out dir[" + dir_ + "/a/b] is not make.[(2)", 0), 0u) << err;
    EXPECT_EQ(cat->last_error.load(), -1);
    EXPECT_EQ(vklog_make_directory_with_parents((dir_ + "/a/b").c_str(), 4096), 0);
    VKLOG_ERROR(cat, "kept\n");
    EXPECT_NE(read_file(path("a/b/agent.log")).find("kept\n"), std::string::npos);
}

// ---- rotation -----------------------------------------------------------------------

TEST_F(VklogFile, RingOverwritesTheOldestBackupAfterTheLast)
{
    vklog_config_t *c = file_config("ring", 3, 10);
    vklog_output_file_t out{};
    for (int gen = 1; gen <= 4; gen++) {
        write_file(c->out_path, "gen" + std::to_string(gen));
        ASSERT_EQ(vl_file_backup(c, &out), 0);
        EXPECT_FALSE(exists("agent.log"));
    }
    EXPECT_EQ(read_file(path("agent.log.1")), "gen4");
    EXPECT_EQ(read_file(path("agent.log.2")), "gen2");
    EXPECT_EQ(read_file(path("agent.log.3")), "gen3");
    EXPECT_EQ(out.backup_idx.load(), 1);
    vklog_config_free(c);
}

TEST_F(VklogFile, RestartContinuesAfterTheNewestNotTheHighest)
{
    for (int n : {1, 2, 3})
        write_file(path("agent.log." + std::to_string(n)), "old" + std::to_string(n));
    set_mtime(path("agent.log.1"), 1000);
    set_mtime(path("agent.log.2"), 3000);
    set_mtime(path("agent.log.3"), 2000);
    write_file(path("agent.log.2x"), "not a backup");
    write_file(path("agent.log.0"), "not a backup");
    write_file(path("agent.log.02"), "not a backup");
    set_mtime(path("agent.log.0"), 9000);
    int idx = -1;
    ASSERT_EQ(vl_get_last_backup_index(path("agent.log").c_str(), &idx), 0);
    EXPECT_EQ(idx, 2);
    // Equal times: the higher number counts as newer.
    set_mtime(path("agent.log.3"), 3000);
    ASSERT_EQ(vl_get_last_backup_index(path("agent.log").c_str(), &idx), 0);
    EXPECT_EQ(idx, 3);
    set_mtime(path("agent.log.3"), 2000);

    vklog_config_t *c = file_config("restart", 3, 10);
    vklog_output_file_t out{};
    write_file(c->out_path, "new");
    ASSERT_EQ(vl_file_backup(c, &out), 0);
    EXPECT_EQ(read_file(path("agent.log.3")), "new");
    vklog_config_free(c);

    EXPECT_EQ(vl_get_last_backup_index("no-slash", &idx), -1);
    EXPECT_EQ(vl_get_last_backup_index((dir_ + "/absent/agent.log").c_str(), &idx), -6);
    ASSERT_EQ(vl_get_last_backup_index(path("other.log").c_str(), &idx), 0);
    EXPECT_EQ(idx, 0);
}

TEST_F(VklogFile, CleanupRemovesOnlyNumbersAboveTheCount)
{
    for (const char *n : {"1", "2", "3", "4", "5", "0", "2x", "07"})
        write_file(path(std::string("agent.log.") + n), "x");
    ASSERT_EQ(vl_cleanup_backup_file(path("agent.log").c_str(), 2), 0);
    for (const char *kept : {"1", "2", "0", "2x", "07"})
        EXPECT_TRUE(exists(std::string("agent.log.") + kept)) << kept;
    for (const char *gone : {"3", "4", "5"})
        EXPECT_FALSE(exists(std::string("agent.log.") + gone)) << gone;
    EXPECT_EQ(vl_cleanup_backup_file((dir_ + "/absent/agent.log").c_str(), 2), -6);
}

TEST_F(VklogFile, SizeLimitTriggersRotationThroughTheLineWriter)
{
    vklog_t *cat = category(file_config("limit", 2, 1));
    std::string chunk(8000, 'c');
    int lines = 0;
    while (!exists("agent.log.1") && lines < 200) {
        VKLOG_INFO(cat, "%s\n", chunk.c_str());
        lines++;
    }
    // The line that brings the file to 1 MiB rotates it at once.
    EXPECT_FALSE(exists("agent.log"));
    auto size = fs::file_size(path("agent.log.1"));
    EXPECT_GE(size, 1u << 20);
    EXPECT_LT(size - size / lines, 1u << 20);
    VKLOG_INFO(cat, "fresh\n");
    EXPECT_LT(fs::file_size(path("agent.log")), 100u);
    EXPECT_FALSE(exists("agent.log.2"));
    EXPECT_EQ(vl_is_limit_size(path("agent.log.1").c_str(), 1), 1);
    EXPECT_EQ(vl_is_limit_size(path("agent.log").c_str(), 1), 0);
    EXPECT_EQ(vl_is_limit_size(path("absent").c_str(), 0), 0);
}

TEST_F(VklogFile, RotationsThroughTheLineWriterFollowTheRing)
{
    // Each generation of the file starts with a line naming it; four rotations of a 1 MiB
    // file with 3 backups go .1, .2, .3 and .1 again.
    vklog_config_t *c = file_config("ring-writer", 3, 1);
    set(c, VKLOG_CFG_TYPE_HEADER_FLAG, "");
    vklog_t *cat = category(c);
    std::string chunk(8000, 'c');
    int gen = 1;
    VKLOG_INFO(cat, "gen%d\n", gen);
    for (int lines = 0; gen <= 4 && lines < 1000; lines++) {
        VKLOG_INFO(cat, "%s\n", chunk.c_str());
        if (!exists("agent.log"))
            VKLOG_INFO(cat, "gen%d\n", ++gen);
    }
    ASSERT_EQ(gen, 5);
    EXPECT_EQ(read_file(path("agent.log.1")).substr(0, 5), "gen4\n");
    EXPECT_EQ(read_file(path("agent.log.2")).substr(0, 5), "gen2\n");
    EXPECT_EQ(read_file(path("agent.log.3")).substr(0, 5), "gen3\n");
    EXPECT_EQ(read_file(path("agent.log")), "gen5\n");
    EXPECT_FALSE(exists("agent.log.4"));
    EXPECT_EQ(cat->output_file.backup_idx.load(), 1);
}

TEST_F(VklogFile, NoBackupsMeansTheFullFileIsDeleted)
{
    vklog_config_t *c = file_config("nobackup", 0, 10);
    vklog_output_file_t out{};
    write_file(c->out_path, "full");
    ASSERT_EQ(vl_file_backup(c, &out), 0);
    EXPECT_FALSE(exists("agent.log"));
    EXPECT_FALSE(exists("agent.log.1"));
    EXPECT_EQ(vl_file_backup(c, &out), -1); // nothing left to remove
    vklog_config_free(c);
}

TEST_F(VklogFile, LoweringTheBackupCountRemovesSurplusBackups)
{
    vklog_t *cat = category(file_config("lower", 5, 10));
    for (int n = 1; n <= 5; n++)
        write_file(path("agent.log." + std::to_string(n)), "x");
    vklog_config_t *c = vklog_config_clone_from_category("lower");
    set(c, VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, "2");
    vklog_config_finish(c);
    int err = 0;
    ASSERT_EQ(vklog_apply_config(c, &err), 0);
    EXPECT_TRUE(exists("agent.log.1"));
    EXPECT_TRUE(exists("agent.log.2"));
    for (int n = 3; n <= 5; n++)
        EXPECT_FALSE(exists("agent.log." + std::to_string(n))) << n;
    write_file(path("agent.log.4"), "x");
    EXPECT_EQ(vklog_cleanup_backup_file(cat), 0);
    EXPECT_FALSE(exists("agent.log.4"));
}

TEST_F(VklogFile, FailedRotationStopsRotationAndDisablesTheCategory)
{
    vklog_config_t *c = file_config("broken", 3, 1);
    set(c, VKLOG_CFG_TYPE_BACKUP_DIRECTORY, dir_ + "/missing");
    vklog_config_finish(c);
    vklog_t *cat = category(c);
    std::string chunk(8000, 'c');
    for (int i = 0; i < (1 << 20) / 8000 + 1; i++)
        VKLOG_INFO(cat, "%s\n", chunk.c_str());
    EXPECT_EQ(cat->activate.load(), 0);
    EXPECT_EQ(cat->last_error.load(), -3);
    EXPECT_EQ(cat->output_file.err_no.load(), -3);
    EXPECT_EQ(cat->output_file.backup_work.load(), 1);
    auto size = fs::file_size(path("agent.log"));
    VKLOG_INFO(cat, "after\n");
    EXPECT_EQ(fs::file_size(path("agent.log")), size);
    EXPECT_FALSE(exists("missing"));
}

// ---- hex dump -----------------------------------------------------------------------

TEST_F(VklogFile, HexDumpRows)
{
    vklog_config_t *c = file_config("hex");
    set(c, VKLOG_CFG_TYPE_HEADER_FLAG, "level");
    vklog_t *cat = category(c);
    const unsigned char data[] = {'A', 'B', 0x00, 0xFF, 'z', 0x7F};
    VKLOG_HEX(cat, VKLOG_LEVEL_INFO, 4, data, sizeof(data), "pkt %d", 7);
    std::string expected = "[INFO]pkt 7\n"
                           "======================== start hexlog ========================\n"
                           "Title: pkt 7, 6 byte (0x6)\n"
                           "0000000000000000: 41 42 00 FF  AB..\n"
                           "0000000000000004: 7A 7F        z.\n"
                           "========================= end hexlog =========================\n\n";
    EXPECT_EQ(read_file(path("agent.log")), expected);

    // A dump larger than one line buffer is written whole, in pieces.
    std::string big(5000, 'q');
    ASSERT_EQ(vklog_hex(cat, "f", 1, "g", 1, 1, VKLOG_LEVEL_INFO, 16, big.data(), big.size(), "big"), 0);
    std::string text = read_file(path("agent.log"));
    size_t rows = 0;
    for (size_t p = text.find("qqqqqqqqqqqqqqqq\n"); p != std::string::npos;
         p = text.find("qqqqqqqqqqqqqqqq\n", p + 1))
        rows++;
    EXPECT_EQ(rows, 5000u / 16);
    EXPECT_NE(text.find("0000000000001380: 71 71 71 71 71 71 71 71"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 64),
              "========================= end hexlog =========================\n\n");
}

} // namespace
