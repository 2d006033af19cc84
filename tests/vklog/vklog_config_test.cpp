// Tests of vklog_config: presets, every configuration key with its error code, ${NAME}
// expansion, finishing, the level filter and the configuration file loader.
#include "vklog_internal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

namespace
{

struct config_deleter {
    void operator()(vklog_config_t *c) const { vklog_config_free(c); }
};
using config_ptr = std::unique_ptr<vklog_config_t, config_deleter>;

int set(vklog_config_t *c, vklog_cfg_type_t key, const std::string &value)
{
    return vklog_config_set(c, key, static_cast<unsigned>(value.size()), value.c_str());
}

class TempDir
{
  public:
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "vklog_cfg_XXXXXX").string();
        path_ = mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::string &path() const { return path_; }
    std::string write(const std::string &name, const std::string &text) const
    {
        std::string p = path_ + "/" + name;
        std::ofstream(p) << text;
        return p;
    }

  private:
    std::string path_;
};

TEST(VklogConfigPreset, PresetsCarryTheirDefaults)
{
    config_ptr none(vklog_config_new_from_preset(VKLOG_CFG_PRESET_NONE));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->name[0], '\0');
    EXPECT_EQ(none->output, 0);
    EXPECT_EQ(none->level.value, 0);
    EXPECT_EQ(none->backup_count, 0u);

    config_ptr def(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
    ASSERT_NE(def, nullptr);
    EXPECT_STREQ(def->name, "default config");
    EXPECT_EQ(def->name_len, 14u);
    EXPECT_EQ(def->file_permission, 0640u);
    EXPECT_EQ(def->output, 0);
    EXPECT_EQ(def->header_flag, 67u);
    EXPECT_EQ(def->include_us_to_time, 1);
    EXPECT_EQ(def->level.value, VKLOG_LEVEL_ERROR);
    EXPECT_EQ(def->level.inequality_sign, '<');
    EXPECT_EQ(def->limit_size, 10u);
    EXPECT_EQ(def->backup_count, 5u);

    config_ptr file(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT_FILE));
    ASSERT_NE(file, nullptr);
    EXPECT_STREQ(file->name, "default file config");
    EXPECT_STREQ(file->out_dir, "log");
    EXPECT_STREQ(file->out_file, "quil_default.log");
    EXPECT_EQ(file->output, VKLOG_OUTPUT_FILE);
    EXPECT_EQ(file->level.value, VKLOG_LEVEL_INFO);
    EXPECT_EQ(file->backup_count, 3u);

    EXPECT_EQ(vklog_config_new_from_preset(static_cast<vklog_cfg_preset_type_t>(3)), nullptr);
    EXPECT_EQ(vklog_config_new_from_preset(static_cast<vklog_cfg_preset_type_t>(-1)), nullptr);
}

TEST(VklogConfigSet, TextKeysRejectOverlongValuesAndKeepTheOldOne)
{
    config_ptr c(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_NAME, std::string(127, 'n')), 0);
    EXPECT_EQ(c->name_len, 127u);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_NAME, std::string(128, 'x')), 1);
    EXPECT_EQ(c->name[0], 'n');
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_FILENAME, "a.log"), 0);
    EXPECT_EQ(c->out_file_len, 5u);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_FILENAME, std::string(128, 'f')), 3);
    EXPECT_STREQ(c->out_file, "a.log");
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_VKLOGGER_IP, std::string(39, '1')), 0);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_VKLOGGER_IP, std::string(40, '2')), 6);
    EXPECT_EQ(c->vklogger_ip[0], '1');
    // The length argument bounds what is read: no terminator needed.
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(vklog_config_set(c.get(), VKLOG_CFG_TYPE_NAME, 3, unterminated), 0);
    EXPECT_STREQ(c->name, "abc");
    EXPECT_EQ(vklog_config_set(nullptr, VKLOG_CFG_TYPE_NAME, 1, "a"), -2);
    EXPECT_EQ(vklog_config_set(c.get(), VKLOG_CFG_TYPE_NAME, 1, nullptr), -2);
    EXPECT_EQ(set(c.get(), static_cast<vklog_cfg_type_t>(99), "whatever"), 0);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_NONE, "whatever"), 0);
}

TEST(VklogConfigSet, OutputTypeListIsCaseInsensitiveAndStrict)
{
    config_ptr c(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "file,stdout"), 0);
    EXPECT_EQ(c->output, 3);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "file,syslog"), 4);
    EXPECT_EQ(c->output, 3);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, " FILE , VkLogger "), 0);
    EXPECT_EQ(c->output, 9);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "stderr"), 0);
    EXPECT_EQ(c->output, 4);
    // Only the first 31 characters count: the unknown word past them is never seen.
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_OUTPUT_TYPE, "file" + std::string(27, ' ') + ",syslog"), 0);
    EXPECT_EQ(c->output, 1);
}

TEST(VklogConfigSet, NumbersPermissionsFlagsAndLevels)
{
    config_ptr c(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_FILE_PERMISSION, "600"), 0);
    EXPECT_EQ(c->file_permission, 0600u);
    for (const char *bad : {"0", "abc", "1000", "68", ""}) {
        c->file_permission = 1;
        EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_FILE_PERMISSION, bad), 0);
        EXPECT_EQ(c->file_permission, 0640u) << bad;
    }
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_VKLOGGER_PORT, "70000"), 0);
    EXPECT_EQ(c->vklogger_port, 70000 & 0xFFFF);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_HEADER_FLAG, "time, LEVEL,bogus,Thread_Id"), 0);
    EXPECT_EQ(c->header_flag, 69u);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME, "TRUE"), 0);
    EXPECT_EQ(c->include_us_to_time, 0);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_INCLUDE_US_TO_TIME, "true"), 0);
    EXPECT_EQ(c->include_us_to_time, 1);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, "7"), 0);
    EXPECT_EQ(c->limit_size, 7u);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, "99999999999"), 0);
    EXPECT_EQ(c->backup_count, UINT_MAX);

    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_LEVEL, "info"), 0);
    EXPECT_EQ(c->level.value, VKLOG_LEVEL_INFO);
    EXPECT_EQ(c->level.inequality_sign, '<');
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_LEVEL, "=trace"), 0);
    EXPECT_EQ(c->level.inequality_sign, '=');
    for (const char *bad : {"none", "bogus", "", "<", "=none"}) {
        EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_LEVEL, bad), 8) << bad;
        EXPECT_EQ(c->level.value, VKLOG_LEVEL_TRACE);
    }
}

TEST(VklogLevel, SignsSelectTheirRange)
{
    vklog_level_t lv{};
    ASSERT_EQ(vl_parse_level("=trace", &lv), 0);
    for (int l = 1; l <= 7; l++)
        EXPECT_EQ(vklog_level_pass(lv, l), l == 7) << l;
    ASSERT_EQ(vl_parse_level(">warn", &lv), 0);
    for (int l = 1; l <= 7; l++)
        EXPECT_EQ(vklog_level_pass(lv, l), l >= 3) << l;
    ASSERT_EQ(vl_parse_level("warn", &lv), 0);
    for (int l = 1; l <= 7; l++)
        EXPECT_EQ(vklog_level_pass(lv, l), l <= 3) << l;
    EXPECT_FALSE(vklog_level_pass(vklog_level_t{7, '!'}, 1));
    EXPECT_STREQ(g_vklog_level_str[VKLOG_LEVEL_DEBUG], "DBUG");
}

TEST(VklogConfigSet, DirectoriesExpandEnvironmentReferences)
{
    setenv("VKLOG_TEST_HOME", "/opt/quil", 1);
    setenv("VKLOG_TEST_SUB", "m", 1);
    unsetenv("VKLOG_TEST_UNSET");
    config_ptr c(vklog_config_new());
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_HOME}/${VKLOG_TEST_SUB}/log"), 0);
    EXPECT_STREQ(c->out_dir, "/opt/quil/m/log");
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_BACKUP_DIRECTORY, "plain/dir"), 0);
    EXPECT_STREQ(c->backup_dir, "plain/dir");
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_UNSET}/log"), 2);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_HOME/log"), 2);
    EXPECT_EQ(set(c.get(), VKLOG_CFG_TYPE_BACKUP_DIRECTORY, "${}"), 12);
    EXPECT_STREQ(c->out_dir, "/opt/quil/m/log");
    EXPECT_STREQ(c->backup_dir, "plain/dir");

    char out[16];
    EXPECT_EQ(vklog_convert_string_Environment("$HOME{x}", out, sizeof(out)), 0);
    EXPECT_STREQ(out, "$HOME{x}");
    EXPECT_EQ(vklog_convert_string_Environment("${VKLOG_TEST_HOME}/abcdefgh", out, sizeof(out)), -4);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(vklog_convert_string_Environment("x", nullptr, 4), -1);
}

TEST(VklogConfigFinish, BuildsPathsAndDefaultsAndIsRepeatable)
{
    config_ptr c(vklog_config_new());
    set(c.get(), VKLOG_CFG_TYPE_NAME, "my app");
    set(c.get(), VKLOG_CFG_TYPE_DIRECTORY, "/var/log/q");
    set(c.get(), VKLOG_CFG_TYPE_FILE_PERMISSION, "755");
    ASSERT_EQ(vklog_config_finish(c.get()), 0);
    EXPECT_STREQ(c->out_file, "my_app.log");
    EXPECT_EQ(c->out_file_len, 10u);
    EXPECT_STREQ(c->out_path, "/var/log/q/my_app.log");
    EXPECT_STREQ(c->backup_path, "/var/log/q/my_app.log");
    EXPECT_EQ(c->limit_size, 10u);
    EXPECT_EQ(c->vklogger_port, 10010);
    EXPECT_EQ(c->file_permission, 0644u);

    set(c.get(), VKLOG_CFG_TYPE_BACKUP_DIRECTORY, "/var/log/q/old");
    ASSERT_EQ(vklog_config_finish(c.get()), 0);
    ASSERT_EQ(vklog_config_finish(c.get()), 0); // a refreshed clone is finished again
    EXPECT_STREQ(c->out_path, "/var/log/q/my_app.log");
    EXPECT_STREQ(c->backup_path, "/var/log/q/old/my_app.log");

    // Without a directory the file is relative and the limit stays as set.
    config_ptr bare(vklog_config_new());
    set(bare.get(), VKLOG_CFG_TYPE_NAME, std::string(127, 'z'));
    ASSERT_EQ(vklog_config_finish(bare.get()), 0);
    EXPECT_EQ(bare->limit_size, 0u);
    EXPECT_EQ(strlen(bare->out_file), 127u);
    EXPECT_STREQ(bare->out_path, bare->out_file);
    EXPECT_EQ(vklog_config_finish(nullptr), -1);

    config_ptr copy(vklog_config_clone_from_config(c.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(vl_config_equal(copy.get(), c.get()));
    copy->header_flag ^= VKLOG_HEADER_PID;
    EXPECT_FALSE(vl_config_equal(copy.get(), c.get()));
}

TEST(VklogConfigPrint, OneLineDescription)
{
    config_ptr c(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT_FILE));
    vklog_config_finish(c.get());
    testing::internal::CaptureStdout();
    vklog_config_print(c.get());
    std::string out = testing::internal::GetCapturedStdout();
    char prefix[128];
    snprintf(prefix, sizeof(prefix),
             "config(0x%016lx)[name:(19)default file config,out:[file[dir:log,file:(16)",
             reinterpret_cast<unsigned long>(c.get()));
    EXPECT_EQ(out.rfind(prefix, 0), 0u) << out;
    EXPECT_NE(out.find("vklogger[ip:,port:10010]],type:1,level:<info(5)],limit size:10,header fla"),
              std::string::npos)
        << out;
}

TEST(VklogConfigVersion, Texts)
{
    EXPECT_STREQ(vklog_get_simple_version(), "vklog 1.0.14(4a962ce)");
    EXPECT_STREQ(vklog_get_version(),
                 "vklog library\nBuild on Feb 15 2024 21:05:29\nVersion 1.0.14 (commit:4a962ce)");
}

// ---- configuration file -----------------------------------------------------------

struct loaded {
    config_ptr head;
    int rc = 0;
    int err = 0;
};

loaded load(const std::string &path)
{
    loaded l;
    l.head.reset(vl_load_config_from_conf_file(path.c_str(), &l.rc, &l.err));
    return l;
}

TEST(VklogConfigFile, SectionsKeysCommentsAndDefaults)
{
    TempDir dir;
    setenv("VKLOG_TEST_HOME", "/opt/quil", 1);
    std::string path = dir.write("vklog.conf", "level = trace   # before any section: ignored\n"
                                               "# comment line\n"
                                               "[ first app ]\n"
                                               "directory = ${VKLOG_TEST_HOME}/log\n"
                                               "output_type=file,stdout\n"
                                               "level\t=\t>warn\r\n"
                                               "include_us_in_time = false\n"
                                               "header_flag = time,line\n"
                                               "limit_file_size = 3\n"
                                               "backup_file_count = 7\n"
                                               "backup_directory = /tmp/b\n"
                                               "vklogger_ip = 127.0.0.1\n"
                                               "vklogger_port = 999\n"
                                               "file_permission = 600\n"
                                               "no equals sign here\n"
                                               "unknown_key = 1\n"
                                               "output_type = syslog\n"
                                               "[second]\n"
                                               "filename = s.log # trailing comment\n");
    loaded l = load(path);
    ASSERT_EQ(l.rc, 0);
    ASSERT_NE(l.head, nullptr);
    vklog_config_t *a = l.head.get();
    EXPECT_STREQ(a->name, "first app");
    EXPECT_STREQ(a->out_dir, "/opt/quil/log");
    EXPECT_STREQ(a->out_path, "/opt/quil/log/first_app.log");
    EXPECT_EQ(a->output, 3); // the rejected "syslog" is ignored
    EXPECT_EQ(a->level.value, VKLOG_LEVEL_WARN);
    EXPECT_EQ(a->level.inequality_sign, '>');
    EXPECT_EQ(a->include_us_to_time, 0);
    EXPECT_EQ(a->header_flag, 33u);
    EXPECT_EQ(a->limit_size, 3u);
    EXPECT_EQ(a->backup_count, 7u);
    EXPECT_STREQ(a->backup_path, "/tmp/b/first_app.log");
    EXPECT_STREQ(a->vklogger_ip, "127.0.0.1");
    EXPECT_EQ(a->vklogger_port, 999);
    EXPECT_EQ(a->file_permission, 0600u);
    vklog_config_t *b = a->next;
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(b->name, "second");
    EXPECT_STREQ(b->out_file, "s.log");
    EXPECT_EQ(b->level.value, VKLOG_LEVEL_ERROR); // DEFAULT preset
    EXPECT_EQ(b->next, nullptr);
    vl_config_list_free(l.head.release());
}

TEST(VklogConfigFile, ErrorsFailTheWholeLoad)
{
    TempDir dir;
    loaded missing = load(dir.path() + "/absent.conf");
    EXPECT_EQ(missing.rc, -11);
    EXPECT_EQ(missing.err, ENOENT);
    EXPECT_EQ(missing.head, nullptr);

    struct {
        const char *text;
        int rc;
    } cases[] = {
        {"[ok]\nlevel=info\n[broken\nlevel=info\n", -12},
        {"[ok]\nlevel=info\n[second]\nlevel=none\n", -14},
        {"[ok]\nlevel=loud\n", -14},
    };
    for (const auto &tc : cases) {
        loaded l = load(dir.write("bad.conf", tc.text));
        EXPECT_EQ(l.rc, tc.rc) << tc.text;
        EXPECT_EQ(l.head, nullptr);
    }
    loaded too_long = load(dir.write("long.conf", "[ok]\ndirectory=" + std::string(1023, 'd') + "\n"));
    EXPECT_EQ(too_long.rc, -13);
    loaded just_fits = load(dir.write("fits.conf", "[ok]\ndirectory=" + std::string(1022, 'd') + "\n"));
    EXPECT_EQ(just_fits.rc, 0);
    EXPECT_EQ(strlen(just_fits.head->out_dir), 1022u);
    // The tail of an over-long comment line (here past 4095 bytes) is not a setting; a NUL
    // inside a line does not swallow the next one; an over-long section name is cut, not
    // replaced by the preset's name.
    loaded long_comment =
        load(dir.write("comment.conf", "[ok]\n#" + std::string(4094, 'c') + "level = loud\nlevel=warn\n[" +
                                           std::string(200, 's') + "]\n"));
    ASSERT_EQ(long_comment.rc, 0);
    ASSERT_NE(long_comment.head, nullptr);
    EXPECT_EQ(long_comment.head->level.value, VKLOG_LEVEL_WARN);
    ASSERT_NE(long_comment.head->next, nullptr);
    EXPECT_EQ(std::string(long_comment.head->next->name), std::string(127, 's'));
    vl_config_list_free(long_comment.head->next);
    long_comment.head->next = nullptr;
    const char nul_text[] = "[ok]\nlevel=warn\0junk\nfilename=a.log\n";
    loaded with_nul = load(dir.write("nul.conf", std::string(nul_text, sizeof(nul_text) - 1)));
    ASSERT_EQ(with_nul.rc, 0);
    ASSERT_NE(with_nul.head, nullptr);
    EXPECT_EQ(with_nul.head->level.value, VKLOG_LEVEL_WARN);
    EXPECT_STREQ(with_nul.head->out_file, "a.log");
    loaded empty = load(dir.write("empty.conf", ""));
    EXPECT_EQ(empty.rc, 0);
    EXPECT_EQ(empty.head, nullptr);
}

} // namespace
