// Concurrency test of vklog: several threads log while the main thread keeps re-applying
// configurations (unchanged ones, as the agent's refresh does, and changed ones that swap)
// and the file rotates. Every line must land exactly once across the file and its backups.
// Meant to run under ThreadSanitizer as well.
#include "vklog_internal.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <netinet/in.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace
{

constexpr int s_threads = 4;
constexpr int s_lines_per_thread = 2500;
constexpr int s_backups = 50; // far more than the rotations made: no backup is overwritten

void set(vklog_config_t *c, vklog_cfg_type_t key, const std::string &v)
{
    ASSERT_EQ(vklog_config_set(c, key, static_cast<unsigned>(v.size()), v.c_str()), 0) << v;
}

// Re-applies the category's configuration; the changed variant adds the thread id to the
// header and forwards lines to `port` on loopback, so sockets open and close under load.
void reapply(const std::string &name, bool changed, uint16_t port)
{
    vklog_config_t *c = vklog_config_clone_from_category(name.c_str());
    ASSERT_NE(c, nullptr);
    set(c, VKLOG_CFG_TYPE_HEADER_FLAG, changed ? "time,pid,thread_id,level" : "time,pid,level");
    set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, changed ? "file,vklogger" : "file");
    set(c, VKLOG_CFG_TYPE_VKLOGGER_IP, "127.0.0.1");
    set(c, VKLOG_CFG_TYPE_VKLOGGER_PORT, std::to_string(port));
    vklog_config_finish(c);
    int err = 0;
    ASSERT_EQ(vklog_apply_config(c, &err), 0);
    ASSERT_EQ(err, 0);
}

// A loopback UDP socket on a free port that nobody reads: datagrams beyond its buffer drop.
struct sink {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port = 0;
    sink()
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(a);
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~sink() { close(fd); }
};

TEST(VklogConcurrency, EveryLineExactlyOnceAcrossSwapsAndRotations)
{
    vklog_fini();
    unsetenv("OLV_DAEMON_VKLOG_DEACTIVATE");
    std::string tmpl = (fs::temp_directory_path() / "vklog_conc_XXXXXX").string();
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    const std::string dir = tmpl;
    const std::string name = "conc";

    vklog_config_t *c = vklog_config_new_from_preset(VKLOG_CFG_PRESET_DEFAULT);
    set(c, VKLOG_CFG_TYPE_NAME, name);
    set(c, VKLOG_CFG_TYPE_OUTPUT_TYPE, "file");
    set(c, VKLOG_CFG_TYPE_DIRECTORY, dir);
    set(c, VKLOG_CFG_TYPE_LEVEL, "info");
    set(c, VKLOG_CFG_TYPE_LIMIT_FILE_SIZE, "1");
    set(c, VKLOG_CFG_TYPE_BACKUP_FILE_COUNT, std::to_string(s_backups));
    int err = 0;
    ASSERT_EQ(vklog_initialize_with_config(c, &err), 0);
    vklog_t *cat = vklog_get_category(name.c_str());
    ASSERT_NE(cat, nullptr);
    vklog_set_global_log_handle(cat);

    // ~4 MiB in all: several rotations of a 1 MiB file. The workers start only once forwarding
    // is on, and the first round of swaps waits for a datagram, so logging and swapping
    // overlap however the threads are scheduled.
    sink udp;
    ASSERT_NE(udp.port, 0);
    const std::string pad(400, 'p');
    std::atomic<int> done{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < s_threads; t++) {
        threads.emplace_back([t, &pad, &done, &go] {
            while (!go.load())
                std::this_thread::yield();
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
    reapply(name, true, udp.port);
    go.store(true);
    while (datagrams() == 0 && done.load() < s_threads)
        std::this_thread::yield();
    int swaps = 0;
    while (done.load() < s_threads) {
        reapply(name, false, udp.port); // back to the first variant
        reapply(name, false, udp.port); // certainly unchanged: must be a no-op
        reapply(name, true, udp.port);
        swaps++;
        std::this_thread::yield();
    }
    for (std::thread &th : threads)
        th.join();
    uint32_t sent = datagrams();
    vklog_fini();

    // Gather every line of the file and its backups.
    std::vector<std::vector<int>> seen(s_threads, std::vector<int>(s_lines_per_thread, 0));
    int files = 0;
    long bad_lines = 0;
    for (const auto &entry : fs::directory_iterator(dir)) {
        files++;
        std::ifstream in(entry.path());
        std::string line;
        while (std::getline(in, line)) {
            int t = -1, i = -1;
            size_t open = line.find("] <T");
            if (line.empty() || line[0] != '[' || open == std::string::npos ||
                sscanf(line.c_str() + open, "] <T%d-%d>", &t, &i) != 2 || t < 0 || t >= s_threads || i < 0 ||
                i >= s_lines_per_thread || line.size() < pad.size() ||
                line.compare(line.size() - pad.size(), pad.size(), pad) != 0) {
                bad_lines++;
                continue;
            }
            seen[t][i]++;
        }
    }
    EXPECT_EQ(bad_lines, 0);
    EXPECT_GE(files, 4) << "expected several rotations";
    EXPECT_LT(files, s_backups + 1);
    EXPECT_GT(sent, 0u) << "forwarding was never on under load";
    for (int t = 0; t < s_threads; t++)
        for (int i = 0; i < s_lines_per_thread; i++)
            ASSERT_EQ(seen[t][i], 1) << "line T" << t << "-" << i;
    std::error_code ec;
    fs::remove_all(dir, ec);
}

} // namespace
