// vklog under threads (for ThreadSanitizer too): lines logged while configurations are
// re-applied and the file rotates must each land exactly once.
#include "vklog_test_util.h"

#include <atomic>
#include <thread>

namespace
{

constexpr int s_threads = 4;
constexpr int s_lines_per_thread = 2500;
constexpr int s_backups = 50; // far more than the rotations made: no backup is overwritten

// Re-applies the category's configuration; the changed variant adds the thread id to the
// header and forwards lines on loopback, so sockets open and close under load.
void reapply(bool changed)
{
    vklog_config_t *c =
        vt::configure(vklog_config_clone_from_category("conc"),
                      {{VKLOG_CFG_TYPE_HEADER_FLAG, changed ? "time,pid,thread_id,level" : "time,pid,level"},
                       {VKLOG_CFG_TYPE_OUTPUT_TYPE, changed ? "file,vklogger" : "file"}});
    int err = 0;
    ASSERT_EQ(vklog_apply_config(c, &err), 0);
    ASSERT_EQ(err, 0);
}

using VklogConcurrency = vt::TempDirTest;

TEST_F(VklogConcurrency, EveryLineExactlyOnceAcrossSwapsAndRotations)
{
    vt::udp_receiver udp; // nobody reads it: datagrams beyond its buffer drop
    ASSERT_NE(udp.port, 0);
    vklog_config_t *c = vt::configure(vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT),
                                      {{VKLOG_CFG_TYPE_NAME, "conc"},
                                       {VKLOG_CFG_TYPE_OUTPUT_TYPE, "file,vklogger"},
                                       {VKLOG_CFG_TYPE_HEADER_FLAG, "time,pid,thread_id,level"},
                                       {VKLOG_CFG_TYPE_DIRECTORY, dir_},
                                       {VKLOG_CFG_TYPE_LEVEL, "info"},
                                       {VKLOG_CFG_TYPE_VKLOGGER_IP, "127.0.0.1"},
                                       {VKLOG_CFG_TYPE_VKLOGGER_PORT, std::to_string(udp.port)},
                                       {VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, "1"},
                                       {VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, std::to_string(s_backups)}});
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(c, &err), 0);
    vklog_t *cat = vklog_get_category("conc");
    ASSERT_NE(cat, nullptr);
    vklog_set_global_log_handle(cat);

    // ~4 MiB in all: several rotations of a 1 MiB file. Forwarding is on from the start and the
    // swaps start once a datagram went out, so logging and swapping overlap however the
    // threads are scheduled.
    const std::string pad(400, 'p');
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < s_threads; t++) {
        threads.emplace_back([t, &pad, &done] {
            for (int i = 0; i < s_lines_per_thread; i++)
                VKLOG_INFO(g_vklog.load(std::memory_order_acquire), "[worker] <T%d-%d> %s\n", t, i,
                           pad.c_str());
            done.fetch_add(1);
        });
    }
    auto datagrams = [cat] {
        vklog_vklogger_perf_data_t perf{};
        (void)vklog_get_vklogger_perf_sent(cat, &perf);
        return perf.sent_success_count + perf.sent_error_count;
    };
    while (datagrams() == 0 && done.load() < s_threads)
        std::this_thread::yield();
    while (done.load() < s_threads) {
        reapply(false); // back to the first variant
        reapply(false); // certainly unchanged: must be a no-op
        reapply(true);
        std::this_thread::yield();
    }
    for (std::thread &th : threads)
        th.join();
    uint32_t sent = datagrams();
    vklog_fini();

    // Every line of the file and its backups must be whole and name a distinct (thread, index).
    std::vector<int> seen(s_threads * s_lines_per_thread, 0);
    int files = 0;
    int bad_lines = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir_)) {
        files++;
        std::ifstream in(entry.path());
        std::string line;
        while (std::getline(in, line)) {
            int t = -1, i = -1;
            size_t open = line.find("] <T");
            bool whole = line.starts_with('[') && open != std::string::npos &&
                         sscanf(line.c_str() + open, "] <T%d-%d>", &t, &i) == 2 && t >= 0 && t < s_threads &&
                         i >= 0 && i < s_lines_per_thread && line.ends_with(" " + pad);
            whole ? seen[t * s_lines_per_thread + i]++ : bad_lines++;
        }
    }
    EXPECT_EQ(bad_lines, 0);
    EXPECT_GE(files, 4) << "expected several rotations";
    EXPECT_GT(sent, 0u) << "forwarding was never on under load";
    for (size_t k = 0; k < seen.size(); k++)
        ASSERT_EQ(seen[k], 1) << "line T" << k / s_lines_per_thread << "-" << k % s_lines_per_thread;
}

} // namespace
