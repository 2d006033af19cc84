// The option table: presets and readers, the file format, reload on mtime change and save
// through "<path>.tmp".
#include "configure.h"

#include "daemon_support.h"
#include "pub_conf.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cstring>
#include <memory>

namespace
{

using namespace daemon_support;

std::string value_of(configure_t *h, int idx)
{
    char buf[256];
    EXPECT_EQ(get_conf_value_string_for_idx(h, idx, buf, sizeof(buf)), 0);
    return buf;
}

using conf_ptr = std::unique_ptr<configure_t, decltype(&destroy_configure)>;

class ConfigureTest : public ::testing::Test
{
  protected:
    void SetUp() override { ASSERT_TRUE(!dir.path.empty() && handle != nullptr); }
    void TearDown() override { destroy_configure(handle); }
    // Each option counts 80 bytes beside its value in the serialised size.
    int expected_serial_size()
    {
        int total = 0;
        for (int i = 0; i < handle->count; i++)
            total += handle->options[i].value_len + CONF_SERIAL_OVERHEAD;
        return total;
    }

    temp_dir dir{"configure_test"};
    std::string path = dir.path + "/config";
    configure_t *handle = create_configure(g_manager_conf_preset, sizeof(g_manager_conf_preset));
};

// The defaults in index order are what the first start writes (scenario tests); the readers by
// name are interface only (ConcurrentReadersAndUpdater reads by name).
TEST_F(ConfigureTest, PresetsReadByIndex)
{
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 0), 300);
    EXPECT_EQ(get_conf_value_int_for_idx(handle, 5), -35199957); // index 5 is past the table
    char small[4]; // a short destination gets a cut, terminated copy
    EXPECT_EQ(get_conf_value_string_for_idx(handle, 2, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "qui");
}

// What a load took from the file shows in what a save writes back, in index order.
TEST_F(ConfigureTest, LoadAppliesTheFileFormatAndSaveWritesItBackThroughTmp)
{
    write_file(path, "# leading comment\n"
                     "MGR_LOG_LEVEL = debug # comment\n"
                     "UNKNOWN=1\n"
                     "MGR_INTERVAL_INFO_LOG\n"
                     "  MGR_LOG_FILENAME\t=  a=b=c  \n"
                     "#MGR_LOG_DIRECTORY=/commented\n"
                     "MGR_INTERVAL_GARBAGE_COLLECT=60");
    ASSERT_EQ(load_config_file(handle, path.c_str()), 0);
    std::string saved = dir.path + "/saved";
    ASSERT_EQ(save_config_file(handle, saved.c_str()), 0);
    EXPECT_EQ(read_file(saved), "MGR_INTERVAL_INFO_LOG=300\n"
                                "MGR_LOG_DIRECTORY=${MGR_QUIL_MANAGER_HOME}/log\n"
                                "MGR_LOG_FILENAME=a=b=c\n"
                                "MGR_LOG_LEVEL=debug\n"
                                "MGR_INTERVAL_GARBAGE_COLLECT=60\n");
    EXPECT_NE(access((saved + ".tmp").c_str(), F_OK), 0);
    EXPECT_EQ(load_config_file(handle, (dir.path + "/missing").c_str()), -2);
    EXPECT_EQ(save_config_file(handle, (dir.path + "/no/such/dir/config").c_str()), -2);
}

TEST_F(ConfigureTest, LoadChangesReadOnlyOptionsButReloadDoesNot)
{
    conf_preset_t presets[2] = {{0, "RO", "fixed"}, {1, "RW", "old"}};
    conf_ptr h(create_configure(presets, sizeof(presets)), destroy_configure);
    write_file(path, "RO=loaded\nRW=loaded\n");
    ASSERT_EQ(load_config_file(h.get(), path.c_str()), 0);
    EXPECT_EQ(value_of(h.get(), 0), "loaded");

    // The same mtime as at the load: nothing read. Then an mtime ten seconds back.
    write_file(path, "RO=reloaded\nRW=reloaded\n");
    struct stat st {
    };
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    h->last_write_time = st.st_mtime;
    EXPECT_EQ(reload_config_file(h.get(), path.c_str()), -2);
    EXPECT_EQ(value_of(h.get(), 1), "loaded");
    timeval times[2] = {{st.st_atime, 0}, {st.st_mtime - 10, 0}};
    ASSERT_EQ(utimes(path.c_str(), times), 0);
    EXPECT_EQ(reload_config_file(h.get(), path.c_str()), 0);
    EXPECT_EQ(value_of(h.get(), 0), "loaded"); // read-only: only load may change it
    EXPECT_EQ(value_of(h.get(), 1), "reloaded");
    EXPECT_EQ(reload_config_file(h.get(), path.c_str()), -2);
}

} // namespace
