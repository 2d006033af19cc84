// Tests of the option table: presets and readers, the file format (comments, unknown names,
// lines without "=", values with "="), reload on mtime change, the update rule, save through
// "<path>.tmp" and the serialised form. Files live in a private temporary directory.
#include "configure.h"
#include "pub_conf.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace
{

std::string read_file(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

// Moves the file's mtime by `seconds` so a reload sees a change without waiting.
void shift_mtime(const std::string &path, int seconds)
{
    struct stat st {
    };
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    timeval times[2] = {{st.st_atime, 0}, {st.st_mtime + seconds, 0}};
    ASSERT_EQ(utimes(path.c_str(), times), 0);
}

uint32_t be32(const unsigned char *p)
{
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

std::string value_of(configure_t *h, int idx)
{
    char buf[256];
    EXPECT_EQ(get_conf_value_string_for_idx(h, idx, buf, sizeof(buf)), 0);
    return buf;
}

class ConfigureTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/configure_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        path = dir + "/config";
        handle = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
        ASSERT_NE(handle, nullptr);
    }
    void TearDown() override
    {
        destroy_configure(handle);
        std::string cmd = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }
    int expected_serial_size()
    {
        int total = 0;
        for (int i = 0; i < handle->count; i++)
            total += handle->options[i].value_len + CONF_SERIAL_OVERHEAD;
        return total;
    }

    std::string dir;
    std::string path;
    configure_t *handle = nullptr;
};

TEST_F(ConfigureTest, PresetsReadByIndexAndName)
{
    ASSERT_EQ(get_config_count(handle), 5);
    EXPECT_EQ(value_of(handle, 0), "300");
    EXPECT_EQ(value_of(handle, 1), "${MGR_QUIL_MANAGER_HOME}/log");
    EXPECT_EQ(value_of(handle, 2), "quil-manager-agent.log");
    EXPECT_EQ(value_of(handle, 3), "info");
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 4), 86400);
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 0), 300);
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 5), -35199957);
    EXPECT_EQ(get_conf_value_int_for_idx(handle, -1), CONF_INT_ERROR);
    EXPECT_EQ(get_conf_value_int_for_idx(nullptr, 0), CONF_INT_ERROR);
    EXPECT_EQ(handle->serial_size, expected_serial_size());

    char buf[64];
    EXPECT_EQ(get_conf_value_string_for_key(handle, "MGR_LOG_LEVEL", buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "info");
    EXPECT_EQ(get_conf_value_string_for_key(handle, "MGR_NOPE", buf, sizeof(buf)), -4);
    EXPECT_EQ(get_conf_value_string_for_key(handle, nullptr, buf, sizeof(buf)), -3);
    EXPECT_EQ(get_conf_value_string_for_key(nullptr, "MGR_LOG_LEVEL", buf, sizeof(buf)), -1);
    EXPECT_EQ(get_conf_value_int_for_key(handle, "MGR_INTERVAL_GARBAGE_COLLECT"), 86400);
    EXPECT_EQ(get_conf_value_int_for_key(handle, "MGR_NOPE"), CONF_INT_ERROR);
    EXPECT_EQ(get_conf_value_string_for_idx(handle, 5, buf, sizeof(buf)), -3);
    EXPECT_EQ(get_conf_value_string_for_idx(nullptr, 0, buf, sizeof(buf)), -1);
    EXPECT_EQ(get_config_count(nullptr), -1);

    // A short destination gets a cut, terminated copy.
    char small[4];
    EXPECT_EQ(get_conf_value_string_for_idx(handle, 2, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "qui");
}

TEST_F(ConfigureTest, EmptyTableAndNamesLongerThan63)
{
    conf_preset_t presets[2] = {{1, "", "x"}, {1, "", "y"}};
    std::string long_name(63, 'N');
    memcpy(presets[0].name, long_name.data(), 63);
    configure_t *h = create_configure(presets, sizeof(presets));
    ASSERT_NE(h, nullptr);
    // Names are matched on their first 63 characters.
    EXPECT_EQ(get_conf_value_int_for_key(h, (long_name + "EXTRA").c_str()), 0);
    char buf[8];
    EXPECT_EQ(get_conf_value_string_for_key(h, (long_name + "EXTRA").c_str(), buf, sizeof(buf)), 0);
    EXPECT_STREQ(buf, "x");
    EXPECT_EQ(set_configure(h, presets, sizeof(presets)), -1) << "a filled handle is not refilled";
    EXPECT_EQ(get_config_count(h), 2);
    destroy_configure(h);

    configure_t *empty = create_configure(presets, 100); // less than one record
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(get_conf_value_string_for_idx(empty, 0, buf, sizeof(buf)), -2);
    EXPECT_EQ(update_conf_value_for_key(empty, "A", "1", 1), -2);
    char *out = nullptr;
    EXPECT_EQ(get_conf_serialization(empty, &out), -2);
    destroy_configure(empty);
    EXPECT_EQ(create_configure(nullptr, 196), nullptr);
}

TEST_F(ConfigureTest, LoadAppliesTheFileFormat)
{
    write_file(path, "# leading comment\n"
                     "MGR_LOG_LEVEL = debug # comment\n"
                     "UNKNOWN=1\n"
                     "MGR_INTERVAL_INFO_LOG\n"
                     "  MGR_LOG_FILENAME\t=  a=b=c  \n"
                     "#MGR_LOG_DIRECTORY=/commented\n"
                     "MGR_INTERVAL_GARBAGE_COLLECT=60");
    ASSERT_EQ(load_config_file(handle, path.c_str()), 0);
    EXPECT_EQ(value_of(handle, 0), "300");
    EXPECT_EQ(value_of(handle, 1), "${MGR_QUIL_MANAGER_HOME}/log");
    EXPECT_EQ(value_of(handle, 2), "a=b=c");
    EXPECT_EQ(value_of(handle, 3), "debug");
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 4), 60);
    EXPECT_EQ(handle->serial_size, expected_serial_size());

    struct stat st {
    };
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_EQ(handle->last_write_time, static_cast<int64_t>(st.st_mtime));

    EXPECT_EQ(load_config_file(handle, (dir + "/missing").c_str()), -2);
    EXPECT_EQ(load_config_file(nullptr, path.c_str()), -1);
    EXPECT_EQ(load_config_file(handle, nullptr), -1);
}

TEST_F(ConfigureTest, LoadChangesReadOnlyOptionsButReloadDoesNot)
{
    conf_preset_t presets[2] = {{0, "RO", "fixed"}, {1, "RW", "old"}};
    configure_t *h = create_configure(presets, sizeof(presets));
    ASSERT_NE(h, nullptr);
    write_file(path, "RO=loaded\nRW=loaded\n");
    ASSERT_EQ(load_config_file(h, path.c_str()), 0);
    EXPECT_EQ(value_of(h, 0), "loaded");
    EXPECT_EQ(value_of(h, 1), "loaded");

    // Unchanged file: nothing read.
    write_file(path, "RO=reloaded\nRW=reloaded\n");
    shift_mtime(path, 0);
    struct stat st {
    };
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    h->last_write_time = st.st_mtime;
    EXPECT_EQ(reload_config_file(h, path.c_str()), -2);
    EXPECT_EQ(value_of(h, 1), "loaded");

    shift_mtime(path, -10);
    EXPECT_EQ(reload_config_file(h, path.c_str()), 0);
    EXPECT_EQ(value_of(h, 0), "loaded"); // read-only: only load may change it
    EXPECT_EQ(value_of(h, 1), "reloaded");
    EXPECT_EQ(reload_config_file(h, path.c_str()), -2);

    // A vanished file has mtime 0: a change, then the open fails.
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(reload_config_file(h, path.c_str()), -3);
    EXPECT_EQ(h->last_write_time, 0);
    EXPECT_EQ(reload_config_file(h, path.c_str()), -2);
    EXPECT_EQ(reload_config_file(nullptr, path.c_str()), -1);
    destroy_configure(h);
}

TEST_F(ConfigureTest, UpdateRuleReplacesLongerAndReusesShorterBuffers)
{
    conf_option_t &opt = handle->options[0];
    const char *before = opt.value;
    ASSERT_EQ(update_conf_value_for_key(handle, "MGR_INTERVAL_INFO_LOG", "30000", 5), 0);
    EXPECT_STREQ(opt.value, "30000");
    EXPECT_EQ(opt.value_len, 5);
    EXPECT_NE(opt.value, before) << "a longer value needs a new buffer";
    EXPECT_EQ(handle->serial_size, expected_serial_size());

    const char *longer = opt.value;
    ASSERT_EQ(update_conf_value_for_idx(handle, 0, "7", 1), 0);
    EXPECT_EQ(opt.value, longer) << "a shorter value reuses the buffer";
    EXPECT_EQ(std::string(opt.value, 6), std::string("7\0\0\0\0\0", 6)) << "old bytes cleared";
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 0), 7);
    EXPECT_EQ(handle->serial_size, expected_serial_size());

    // len bounds the value; equal values change nothing.
    ASSERT_EQ(update_conf_value_for_key(handle, "MGR_LOG_LEVEL", "tracefoo", 5), 0);
    EXPECT_EQ(value_of(handle, 3), "trace");
    const char *same = handle->options[3].value;
    ASSERT_EQ(update_conf_value_for_key(handle, "MGR_LOG_LEVEL", "trace", 5), 0);
    EXPECT_EQ(handle->options[3].value, same);

    EXPECT_EQ(update_conf_value_for_key(handle, "UNKNOWN", "x", 1), 0);
    EXPECT_EQ(update_conf_value_for_key(nullptr, "MGR_LOG_LEVEL", "x", 1), -1);
    EXPECT_EQ(update_conf_value_for_idx(handle, 5, "x", 1), -3);
    EXPECT_EQ(update_conf_value_for_idx(nullptr, 0, "x", 1), -1);

    conf_preset_t ro[1] = {{2, "RO", "fixed"}};
    configure_t *h = create_configure(ro, sizeof(ro));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(update_conf_value_for_idx(h, 0, "x", 1), -4);
    EXPECT_EQ(update_conf_value_for_key(h, "RO", "x", 1), 0);
    EXPECT_EQ(value_of(h, 0), "fixed");
    destroy_configure(h);
}

TEST_F(ConfigureTest, SaveWritesIndexOrderThroughTmpAndLoadsBack)
{
    ASSERT_EQ(save_config_file(handle, path.c_str()), 0);
    EXPECT_EQ(read_file(path), "MGR_INTERVAL_INFO_LOG=300\n"
                               "MGR_LOG_DIRECTORY=${MGR_QUIL_MANAGER_HOME}/log\n"
                               "MGR_LOG_FILENAME=quil-manager-agent.log\n"
                               "MGR_LOG_LEVEL=info\n"
                               "MGR_INTERVAL_GARBAGE_COLLECT=86400\n");
    EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0);

    ASSERT_EQ(update_conf_value_for_idx(handle, 3, "warn", 4), 0);
    ASSERT_EQ(save_config_file(handle, path.c_str()), 0);
    configure_t *other = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(load_config_file(other, path.c_str()), 0);
    EXPECT_EQ(value_of(other, 3), "warn");
    destroy_configure(other);

    EXPECT_EQ(save_config_file(handle, (dir + "/no/such/dir/config").c_str()), -2);
    EXPECT_EQ(save_config_file(nullptr, path.c_str()), -1);
}

TEST_F(ConfigureTest, SerialisationCountsEightyBytesPerOption)
{
    ASSERT_EQ(update_conf_value_for_idx(handle, 3, "debug", 5), 0);
    char *out = nullptr;
    int size = get_conf_serialization(handle, &out);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(size, handle->serial_size);
    EXPECT_EQ(size, expected_serial_size());
    const auto *p = reinterpret_cast<const unsigned char *>(out);
    EXPECT_EQ((p[0] << 8) | p[1], 5);
    size_t off = 2;
    int written = 2;
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(p + off)), handle->options[i].name);
        for (size_t k = strlen(handle->options[i].name); k < 64; k++)
            ASSERT_EQ(p[off + k], 0) << "name padding of option " << i;
        uint32_t len = be32(p + off + 64);
        EXPECT_EQ(len, static_cast<uint32_t>(handle->options[i].value_len));
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(p + off + 68), len), handle->options[i].value);
        off += 68 + len;
        written += 68 + static_cast<int>(len);
    }
    // 12 bytes per option more are counted than written; the tail is zeroes.
    EXPECT_EQ(size + 2 - written, 5 * 12);
    for (int k = written; k < size + 2; k++)
        ASSERT_EQ(p[k], 0);
    free(out);
    EXPECT_EQ(get_conf_serialization(nullptr, &out), -1);
}

// Readers by index and name run while another thread rewrites values in place; under TSan
// this shows that the lock covers every access.
TEST_F(ConfigureTest, ConcurrentReadersAndUpdater)
{
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; i++) {
            update_conf_value_for_key(handle, "MGR_INTERVAL_INFO_LOG", i % 2 ? "111" : "22222",
                                      i % 2 ? 3 : 5);
        }
        stop = true;
    });
    int bad = 0;
    while (!stop) {
        int v = get_conf_value_int_for_idx(handle, 0);
        char buf[16];
        get_conf_value_string_for_key(handle, "MGR_INTERVAL_INFO_LOG", buf, sizeof(buf));
        std::string s(buf);
        if ((v != 300 && v != 111 && v != 22222) || (s != "300" && s != "111" && s != "22222"))
            bad++;
    }
    writer.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(handle->serial_size, expected_serial_size());
}

} // namespace
