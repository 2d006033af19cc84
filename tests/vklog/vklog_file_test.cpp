// The file side of vklog: the line header, the file writer, the backup ring, a failed rotation
// and the hex dump, each test in its own temporary directory.
#include "vklog_test_util.h"

#include <cctype>
#include <functional>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace
{

using vt::read_file;
using vt::write_file;

bool contains(const std::string &text, const std::string &what)
{
    return text.find(what) != std::string::npos;
}

// `text` against `shape`, where '#' stands for any digit and everything else for itself.
bool shaped(const std::string &text, const std::string &shape)
{
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); i++)
        if (shape[i] == '#' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
            return false;
    return true;
}

TEST(VklogHeader, EveryItemInOrderEachInBrackets)
{
    std::string pid = std::to_string(getpid());
    char tid[32];
    snprintf(tid, sizeof(tid), "%lx", static_cast<unsigned long>(pthread_self()));
    struct {
        int level;
        unsigned opt;
        char us;
        std::string shape;
    } rows[] = {
        {5, 67, 1, "[## ##:##:##.######][" + pid + "][INFO]"},
        {5, 1, 0, "[## ##:##:##]"},
        {5, 6, 0, "[" + pid + ":" + tid + "]"},
        {8, 64, 0, "[null]"},
        {1, 40, 0, "[src/a.cpp:42]"},
        {1, 48, 0, "[fn:42]"},
        {7, 56 | 64, 0, "[TRAC][src/a.cpp:fn:42]"},
        {7, 0, 0, ""},
    };
    for (const auto &r : rows) {
        char buf[256];
        int n = vl_set_header(r.level, r.opt, r.us, "src/a.cpp", 9, "fn", 2, 42, buf, sizeof(buf));
        ASSERT_GE(n, 0) << r.opt;
        EXPECT_TRUE(shaped(buf, r.shape)) << r.opt << ": " << buf;
    }
    char buf[32];
    EXPECT_EQ(vl_set_header(5, 1, 1, nullptr, 0, nullptr, 0, 0, buf, 20), -1); // 20 characters + terminator
}

TEST(VklogHeader, ForkedChildWritesItsOwnPid)
{
    char buf[64];
    ASSERT_GT(vl_set_header(5, 2, 0, nullptr, 0, nullptr, 0, 0, buf, sizeof(buf)), 0); // the parent's pid is known
    pid_t child = fork();
    if (child == 0) {
        bool own = vl_set_header(5, 2, 0, nullptr, 0, nullptr, 0, 0, buf, sizeof(buf)) > 0 &&
                   buf == "[" + std::to_string(getpid()) + "]";
        _exit(own ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

class VklogFile : public vt::TempDirTest
{
  protected:
    // A finished file configuration `name` writing agent.log in the test directory at TRACE.
    vklog_config_t *file_config(const std::string &name, unsigned backups = 3, unsigned limit_mib = 1)
    {
        return vt::configure(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT),
                             {{VKLOG_CFG_TYPE_NAME, name},
                              {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file"},
                              {VKLOG_CFG_TYPE_DIRECTORY, dir_},
                              {VKLOG_CFG_TYPE_FILENAME, "agent.log"},
                              {VKLOG_CFG_TYPE_LEVEL, "trace"},
                              {VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, std::to_string(limit_mib)},
                              {VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, std::to_string(backups)}});
    }
    vklog_t *category(vklog_config_t *c)
    {
        std::string name = c->name;
        int err = 0;
        EXPECT_EQ(vklog_apply_config(c, &err), 0);
        EXPECT_EQ(err, 0);
        return vklog_get_category(name.c_str());
    }
    // One backup generation of agent.log through vl_file_backup.
    int rotate_file(unsigned backups, const std::string &text, vklog_output_file_t *out)
    {
        vklog_config_t *c = file_config("direct", backups, 10);
        write_file(c->out_path, text);
        int rc = vl_file_backup(c, out);
        vklog_config_free(c);
        return rc;
    }
};

TEST_F(VklogFile, LinesPassTheLevelFilterAndAreCutToTheBuffer)
{
    vklog_t *cat =
        category(vt::configure(file_config("filter"), {{VKLOG_CFG_TYPE_LEVEL, "info"},
                                                       {VKLOG_CFG_TYPE_HEADER_FLAG, "level,function"}}));
    ASSERT_NE(cat, nullptr);
    VKLOG_INFO(cat, "[%s] one %d\n", "t", 1);
    VKLOG_DEBUG(cat, "filtered\n");
    VKLOG_ERROR(cat, "two\n");
    VKLOG_INFO(static_cast<vklog_t *>(nullptr), "nowhere\n");
    const std::string expected = "[INFO][TestBody][t] one 1\n[ERRO][TestBody]two\n";
    EXPECT_EQ(read_file(path("agent.log")), expected);

    ASSERT_EQ(vklog(cat, "f", 1, "g", 1, 1, 5, "%s", std::string(20000, 'm').c_str()), 0);
    std::string text = read_file(path("agent.log"));
    EXPECT_EQ(text.size(), expected.size() + VL_LINE_BUFFER_SIZE - 1);
    EXPECT_TRUE(text.ends_with("mmmmmmmmmm\n")) << "a cut line still ends its line";
}

TEST_F(VklogFile, MissingDirectoryIsMadeOneLevelOnly)
{
    vklog_t *cat = category(vt::configure(file_config("mkdir"), {{VKLOG_CFG_TYPE_DIRECTORY, dir_ + "/new"}}));
    VKLOG_ERROR(cat, "made\n");
    EXPECT_NE(read_file(path("new/agent.log")).find("made\n"), std::string::npos);

    category(vt::configure(file_config("mkdir"), {{VKLOG_CFG_TYPE_DIRECTORY, dir_ + "/a/b"}}));
    VKLOG_ERROR(cat, "lost\n"); // only one level is made: a/b fails
    EXPECT_EQ(cat->last_error.load(), -1);
}

TEST_F(VklogFile, RotationsThroughTheLineWriterFollowTheRing)
{
    // Each generation of the file starts with a line naming it; four rotations of a 1 MiB
    // file with 3 backups go .1, .2, .3 and .1 again.
    vklog_t *cat = category(vt::configure(file_config("ring", 3, 1), {{VKLOG_CFG_TYPE_HEADER_FLAG, ""}}));
    write_file(path("target"), "keep");
    ASSERT_EQ(symlink(path("target").c_str(), path("agent.log.2").c_str()), 0); // replaced, never followed
    std::string chunk(8000, 'c');
    int gen = 1;
    VKLOG_INFO(cat, "gen%d\n", gen);
    for (int lines = 0; gen <= 4 && lines < 1000; lines++) {
        VKLOG_INFO(cat, "%s\n", chunk.c_str());
        if (!exists("agent.log")) // the line that brings the file to the limit rotates it at once
            VKLOG_INFO(cat, "gen%d\n", ++gen);
    }
    ASSERT_EQ(gen, 5);
    EXPECT_TRUE(read_file(path("agent.log.1")).starts_with("gen4\n"));
    EXPECT_TRUE(read_file(path("agent.log.2")).starts_with("gen2\n"));
    EXPECT_TRUE(read_file(path("agent.log.3")).starts_with("gen3\n"));
    EXPECT_EQ(read_file(path("agent.log")), "gen5\n");
    EXPECT_FALSE(exists("agent.log.4"));
    EXPECT_EQ(read_file(path("target")), "keep");
}

TEST_F(VklogFile, RotationFollowsTheFileWhenOthersChangeIt)
{
    // Lines of 8001 bytes: a 1 MiB limit is reached by the 132nd line of a file.
    const std::string chunk(8000, 'c');
    constexpr off_t line = 8001;
    constexpr int full_at = 132;
    const char *changes[] = {"removed", "truncated", "renamed", "appended"};
    for (const char *change : changes) {
        SCOPED_TRACE(change);
        vklog_fini();
        fs::remove_all(dir_);
        fs::create_directory(dir_);
        vklog_t *cat = category(vt::configure(file_config(change, 3, 1), {{VKLOG_CFG_TYPE_HEADER_FLAG, ""}}));
        auto log = [&](int n) {
            for (int i = 0; i < n; i++)
                VKLOG_INFO(cat, "%s\n", chunk.c_str());
        };
        std::string change_s = change;
        if (change_s == "appended") {
            // Another writer fills the file: the next 64 lines at most see it and rotate.
            log(2);
            std::ofstream(path("agent.log"), std::ios::app) << std::string(1 << 20, 'o');
            int lines = 0;
            while (!exists("agent.log.1") && lines < 64) {
                log(1);
                lines++;
            }
            EXPECT_TRUE(exists("agent.log.1"));
            continue;
        }
        log(120);
        if (change_s == "removed")
            fs::remove(path("agent.log"));
        else if (change_s == "truncated")
            fs::resize_file(path("agent.log"), 0);
        else
            fs::rename(path("agent.log"), path("moved.log"));
        // The 240 lines written in all pass the limit, but the new file only gets full at
        // its own 132nd line, and rotates exactly there.
        log(full_at - 1);
        EXPECT_FALSE(exists("agent.log.1"));
        EXPECT_EQ(fs::file_size(path("agent.log")), static_cast<uintmax_t>((full_at - 1) * line));
        log(1);
        EXPECT_EQ(fs::file_size(path("agent.log.1")), static_cast<uintmax_t>(full_at * line));
        EXPECT_FALSE(exists("agent.log"));
        if (change_s == "renamed") {
            EXPECT_EQ(fs::file_size(path("moved.log")), static_cast<uintmax_t>(120 * line));
        }
    }
}

TEST_F(VklogFile, SwitchToAFullFileRotatesAtItsFirstLine)
{
    vklog_t *cat = category(file_config("switch", 3, 1));
    VKLOG_INFO(cat, "small\n");
    write_file(path("other.log"), std::string(1 << 20, 'o'));
    ASSERT_EQ(category(vt::configure(vklog_config_clone_from_category("switch"),
                                     {{VKLOG_CFG_TYPE_FILENAME, "other.log"}})),
              cat);
    VKLOG_INFO(cat, "first\n");
    EXPECT_TRUE(exists("other.log.1"));
    EXPECT_FALSE(exists("agent.log.1"));
}

// A restart continues after the newest backup, not the highest; with no backups a full file
// is deleted.
TEST_F(VklogFile, RestartContinuesAfterTheNewestNotTheHighest)
{
    write_file(path("agent.log.1"), "old1", 1000);
    write_file(path("agent.log.2"), "old2", 3000);
    write_file(path("agent.log.3"), "old3", 2000);
    write_file(path("agent.log.0"), "not a backup", 9000);
    write_file(path("agent.log.2x"), "not a backup", 9000);
    int idx = -1;
    ASSERT_EQ(vl_get_last_backup_index(path("agent.log").c_str(), &idx), 0);
    EXPECT_EQ(idx, 2);
    vklog_output_file_t out{};
    ASSERT_EQ(rotate_file(3, "new", &out), 0);
    EXPECT_EQ(read_file(path("agent.log.3")), "new");
    ASSERT_EQ(rotate_file(0, "full", &out), 0);
    EXPECT_FALSE(exists("agent.log"));
    EXPECT_EQ(read_file(path("agent.log.1")), "old1");
}

TEST_F(VklogFile, LoweringTheBackupCountRemovesSurplusBackups)
{
    vklog_t *cat = category(file_config("lower", 5, 10));
    for (const char *n : {"1", "2", "3", "4", "5", "0", "2x", "07"}) // only 1..5 are backups
        write_file(path(std::string("agent.log.") + n), "x");
    ASSERT_EQ(category(vt::configure(vklog_config_clone_from_category("lower"),
                                     {{VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, "2"}})),
              cat);
    for (const char *kept : {"1", "2", "0", "2x", "07"})
        EXPECT_TRUE(exists(std::string("agent.log.") + kept)) << kept;
    for (const char *gone : {"3", "4", "5"})
        EXPECT_FALSE(exists(std::string("agent.log.") + gone)) << gone;
    write_file(path("agent.log.4"), "x");
    EXPECT_EQ(vklog_cleanup_backup_file(cat), 0);
    EXPECT_FALSE(exists("agent.log.4"));
}

// Each hazard is said once on standard error with its reason; lines in the pause that follows
// are dropped, and logging resumes within about a second of the fix. Nothing is ever written
// through a link or into a FIFO, and a FIFO never blocks.
TEST_F(VklogFile, UnwritableFileIsSaidOnceAndRetriedEverySecond)
{
    const std::string log = path("agent.log"), d = path("d");
    int reader = -1; // a FIFO with a reader can be opened for writing: it must still be refused
    char c;
    struct {
        const char *name, *reason;
        std::function<void()> set_up, fix;
    } rows[] = {
        {"link", "symbolic link", [&] { ASSERT_EQ(symlink(path("target").c_str(), log.c_str()), 0); },
         [&] { fs::remove(log); }},
        {"fifo", "not a regular file",
         [&] { reader = mkfifo(log.c_str(), 0600) == 0 ? open(log.c_str(), O_RDONLY | O_NONBLOCK) : -1; },
         [&] { EXPECT_LE(read(reader, &c, 1), 0) << "nothing reached the FIFO"; close(reader), fs::remove(log); }},
        {"directory is a file", "Not a directory", [&] { write_file(d, "a file"); },
         [&] { fs::remove(d), fs::create_directory(d); }},
        {"rotation", "rotation failed", [&] { write_file(log, std::string(1 << 20, 'o')); }, // backups/ missing
         [&] { fs::create_directory(path("backups")); }},
    };
    for (auto &r : rows) {
        SCOPED_TRACE(r.name);
        vklog_fini();
        fs::remove_all(dir_);
        fs::create_directory(dir_);
        write_file(path("target"), "keep");
        std::string file = r.name[0] == 'd' ? d + "/agent.log" : log;
        vklog_t *cat = category(vt::configure(file_config(r.name, 3, 1),
                                              {{VKLOG_CFG_TYPE_DIRECTORY, r.name[0] == 'd' ? d : dir_},
                                               {VKLOG_CFG_TYPE_HEADER_FLAG, ""},
                                               {VKLOG_CFG_TYPE_BACKUP_DIRECTORY, path("backups")}}));
        r.set_up();
        testing::internal::CaptureStderr();
        VKLOG_INFO(cat, "found\n");
        r.fix();
        VKLOG_INFO(cat, "paused\n");
        auto fixed_at = std::chrono::steady_clock::now();
        while (!contains(read_file(file), "back\n") && std::chrono::steady_clock::now() - fixed_at < 3s) {
            VKLOG_INFO(cat, "back\n");
            usleep(20000);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - fixed_at, 2s) << "resumes within about a second";
        std::string said = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(contains(read_file(file), "paused")) << "dropped during the pause";
        EXPECT_EQ(read_file(path("target")), "keep");
        EXPECT_TRUE(contains(said, file + " cannot be written: ") && contains(said, r.reason)) << said;
        EXPECT_EQ(said.find("cannot be written", said.find("cannot be written") + 1), std::string::npos)
            << "said once: " << said;
        EXPECT_TRUE(contains(said, "is written again")) << said;
    }
    EXPECT_TRUE(exists("backups/agent.log.1")) << "the full file was rotated once the rotation could work";
}

TEST_F(VklogFile, HexDumpRows)
{
    vklog_t *cat = category(vt::configure(file_config("hex"), {{VKLOG_CFG_TYPE_HEADER_FLAG, "level"}}));
    const unsigned char data[] = {'A', 'B', 0x00, 0xFF, 'z', 0x7F};
    VKLOG_HEX(cat, VKLOG_LEVEL_INFO, 4, data, sizeof(data), "pkt %d", 7);
    const std::string end = "========================= end hexlog =========================\n\n";
    EXPECT_EQ(read_file(path("agent.log")), "[INFO]pkt 7\n"
                                            "======================== start hexlog ========================\n"
                                            "Title: pkt 7, 6 byte (0x6)\n"
                                            "0000000000000000: 41 42 00 FF  AB..\n"
                                            "0000000000000004: 7A 7F        z.\n" +
                                                end);
    // A dump larger than one line buffer is written whole, in pieces.
    std::string big(5000, 'q');
    ASSERT_EQ(vklog_hex(cat, "f", 1, "g", 1, 1, VKLOG_LEVEL_INFO, 16, big.data(), big.size(), "big"), 0);
    std::string text = read_file(path("agent.log"));
    EXPECT_NE(text.find("0000000000001380: 71 71 71 71 71 71 71 71"), std::string::npos); // the last row
    EXPECT_TRUE(text.ends_with(end));
}

} // namespace
