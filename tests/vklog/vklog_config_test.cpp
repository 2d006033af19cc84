// vklog_config: every key with its error code, expansion, finishing, the level filter and the
// configuration file loader.
#include "vklog_test_util.h"

#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <sys/stat.h>

namespace
{

struct config_deleter {
    void operator()(vklog_config_t *c) const { vl_config_list_free(c); }
};
using config_ptr = std::unique_ptr<vklog_config_t, config_deleter>;

// Each value applied in turn to one configuration: a rejected value returns the key's number
// and leaves the field as the previous row set it.
TEST(VklogConfig, KeysAcceptOrRejectWithTheKeyNumber)
{
    setenv("VKLOG_TEST_HOME", "/opt/quil", 1);
    unsetenv("VKLOG_TEST_UNSET");
    config_ptr c(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT));
#define FIELD(member)                                                                                        \
    [&] {                                                                                                    \
        std::ostringstream o;                                                                                \
        o << +c->member; /* arrays print as text, small integers as numbers */                               \
        return o.str();                                                                                      \
    }
    auto level = [&] { return std::to_string(c->level.value) + char(c->level.inequality_sign); };
    const std::string n127(127, 'n');
    struct {
        vklog_cfg_type_t key;
        std::string value;
        int rc;
        std::function<std::string()> field;
        std::string expected;
    } rows[] = {
        {VKLOG_CFG_TYPE_NAME, n127, 0, FIELD(name), n127},
        {VKLOG_CFG_TYPE_NAME, std::string(128, 'x'), 1, FIELD(name), n127},
        {VKLOG_CFG_TYPE_FILENAME, std::string(128, 'f'), 3, FIELD(out_file), ""},
        {VKLOG_CFG_TYPE_VKLOGGER_IP, std::string(40, '2'), 6, FIELD(vklogger_ip), ""},
        {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file,stdout", 0, FIELD(output), "3"},
        {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file,syslog", 4, FIELD(output), "3"},
        {VKLOG_CFG_TYPE_OUTPUT_TYPE, " FILE , VkLogger ", 0, FIELD(output), "9"},
        {VKLOG_CFG_TYPE_FILE_PERMISSION, "600", 0, FIELD(file_permission), std::to_string(0600)},
        {VKLOG_CFG_TYPE_HEADER_FLAG, "time, LEVEL,bogus,Thread_Id", 0, FIELD(header_flag), "69"},
        {VKLOG_CFG_TYPE_LEVEL, "info", 0, level, "5<"},
        {VKLOG_CFG_TYPE_LEVEL, ">warn", 0, level, "3>"},
        {VKLOG_CFG_TYPE_LEVEL, "=trace", 0, level, "7="},
        {VKLOG_CFG_TYPE_LEVEL, "none", 8, level, "7="},
        {VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_HOME}/log", 0, FIELD(out_dir), "/opt/quil/log"},
        {VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_UNSET}/x", 2, FIELD(out_dir), "/opt/quil/log"},
        {VKLOG_CFG_TYPE_DIRECTORY, "${VKLOG_TEST_HOME/x", 2, FIELD(out_dir), "/opt/quil/log"},
        {VKLOG_CFG_TYPE_BACKUP_DIRECTORY, "${}", 12, FIELD(backup_dir), ""},
        {static_cast<vklog_cfg_type_t>(99), "ignored", 0, FIELD(name), n127},
    };
#undef FIELD
    for (const auto &r : rows) {
        EXPECT_EQ(vt::set_rc(c.get(), r.key, r.value), r.rc) << r.key << " " << r.value;
        EXPECT_EQ(r.field(), r.expected) << r.key << " " << r.value;
    }
    // The length bounds what is read: no terminator needed.
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(vklog_config_set(c.get(), VKLOG_CFG_TYPE_NAME, 3, unterminated), 0);
    EXPECT_STREQ(c->name, "abc");
    EXPECT_EQ(vklog_config_set(c.get(), VKLOG_CFG_TYPE_NAME, 1, nullptr), -2);
    EXPECT_EQ(vklog_config_new_from_preset(static_cast<vklog_cfg_preset_type_t>(3)), nullptr);
}

TEST(VklogConfig, LevelSignsSelectTheirRange)
{
    // Which message levels 1..7 pass each setting.
    for (auto [setting, passes] :
         {std::pair{"=trace", "0000001"}, {">warn", "0011111"}, {"warn", "1110000"}}) {
        vklog_level_t lv{};
        ASSERT_EQ(vl_parse_level(setting, &lv), 0) << setting;
        for (int l = 1; l <= 7; l++)
            EXPECT_EQ(vklog_level_pass(lv, l), passes[l - 1] == '1') << setting << " " << l;
    }
}

TEST(VklogConfig, FinishBuildsPathsAndDefaultsAndIsRepeatable)
{
    config_ptr c(vklog_config_new());
    vt::configure(c.get(), {{VKLOG_CFG_TYPE_NAME, "my app"},
                            {VKLOG_CFG_TYPE_DIRECTORY, "/var/log/q"},
                            {VKLOG_CFG_TYPE_FILE_PERMISSION, "755"}});
    EXPECT_STREQ(c->out_path, "/var/log/q/my_app.log");
    EXPECT_EQ(c->limit_size, 10u);
    EXPECT_EQ(c->vklogger_port, 10010);
    EXPECT_EQ(c->file_permission, 0644u);
    // Finished again, as a refreshed clone is: the paths are rebuilt, not appended to.
    vt::configure(c.get(), {{VKLOG_CFG_TYPE_BACKUP_DIRECTORY, "/var/log/q/old"}});
    EXPECT_STREQ(c->out_path, "/var/log/q/my_app.log");
    EXPECT_STREQ(c->backup_path, "/var/log/q/old/my_app.log");
}

// ---- configuration file -----------------------------------------------------------

class VklogConfigFile : public vt::TempDirTest
{
  protected:
    config_ptr load(const std::string &text, int expected_rc)
    {
        vt::write_file(path("vklog.conf"), text);
        int rc = 1, err = 0;
        config_ptr head(vl_load_config_from_conf_file(path("vklog.conf").c_str(), &rc, &err));
        EXPECT_EQ(rc, expected_rc) << text.substr(0, 60);
        EXPECT_TRUE(rc == 0 || head == nullptr); // a failed load keeps nothing
        return head;
    }
};

TEST_F(VklogConfigFile, SectionsKeysCommentsAndDefaults)
{
    config_ptr head = load("level = trace   # before any section: ignored\n"
                           "[ first app ]\n"
                           "directory = /opt/log\n"
                           "output_type=file,stdout\n"
                           "level\t=\t>warn\r\n"
                           "output_type = syslog\n"
                           "[second]\n"
                           "filename = s.log # trailing comment\n",
                           0);
    ASSERT_NE(head, nullptr);
    vklog_config_t *a = head.get();
    EXPECT_STREQ(a->name, "first app");
    EXPECT_STREQ(a->out_path, "/opt/log/first_app.log"); // no "filename": derived from the name
    EXPECT_EQ(a->output, 3);                             // the rejected "syslog" is ignored
    EXPECT_EQ(a->level.value, VKLOG_LEVEL_WARN);
    EXPECT_EQ(a->level.inequality_sign, '>');
    vklog_config_t *b = a->next;
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(b->out_file, "s.log");
    EXPECT_EQ(b->level.value, VKLOG_LEVEL_ERROR); // DEFAULT preset
    EXPECT_EQ(b->next, nullptr);
}

TEST_F(VklogConfigFile, ErrorsFailTheWholeLoadAndOverlongInputIsBounded)
{
    // A link or a FIFO at the name counts as missing (a FIFO would block a plain open) and is
    // named on standard error while no program log exists.
    vt::write_file(path("real.conf"), "[ok]\n");
    ASSERT_EQ(symlink(path("real.conf").c_str(), path("link.conf").c_str()), 0);
    ASSERT_EQ(mkfifo(path("fifo.conf").c_str(), 0600), 0);
    for (std::string name : {"absent", "link.conf", "fifo.conf"}) {
        testing::internal::CaptureStderr();
        int rc = 0, err = 0;
        EXPECT_EQ(vl_load_config_from_conf_file(path(name).c_str(), &rc, &err), nullptr) << name;
        EXPECT_EQ(rc, -11) << name;
        EXPECT_EQ(err, ENOENT) << name;
        std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(said.find(path(name) + (name == "link.conf" ? " is a symbolic link" : " is not a regular")) !=
                      std::string::npos,
                  name != "absent")
            << said;
    }
    load("[ok]\nlevel=info\n[broken\nlevel=info\n", -12);
    load("[ok]\nlevel=info\n[second]\nlevel=none\n", -14);
    load("[ok]\ndirectory=" + std::string(1023, 'd') + "\n", -13);
    EXPECT_EQ(strlen(load("[ok]\ndirectory=" + std::string(1022, 'd') + "\n", 0)->out_dir), 1022u);
    // The tail of an over-long comment line is not a setting; an over-long section name is
    // cut.
    config_ptr l = load("[ok]\n#" + std::string(4094, 'c') + "level = loud\nlevel=warn\n[" +
                            std::string(200, 's') + "]\n",
                        0);
    ASSERT_TRUE(l != nullptr && l->next != nullptr);
    EXPECT_EQ(l->level.value, VKLOG_LEVEL_WARN);
    EXPECT_EQ(std::string(l->next->name), std::string(127, 's'));
}

} // namespace
