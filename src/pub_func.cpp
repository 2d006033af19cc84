// pub_func: the worker-thread starter, the DG receiver address, the clock difference to the
// DG and the packet id counter. Called by process_main (threads, receiver address at
// start-up), the connection thread (sender thread, address refresh, time-sync rounds) and
// the message builders.
#include "pub_func.h"

#include <arpa/inet.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <string_view>

#include "global_var.h"
#include "hash2.h"
#include "signal_ctl.h"
#include "vk_comm.h"
#include "vk_string.h"
#include "vklog.h"

dgconn_slave_info_t g_dgconn_slave_info;

int run_thread(pthread_t *thread_id_out, const pthread_attr_t *attributes, void *(*start_routine)(void *),
               void *argument, const char *thread_name)
{
    int ret = pthread_create(thread_id_out, attributes, start_routine, argument);
    if (ret != 0) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00010030] Failed to create thread. thread_name:%s (%d)\n",
                    thread_name, ret);
        VKLOG_DEBUG(g_vklog.load(), "[run_thread] create failed. %s (%d:%s)\n", thread_name, ret,
                    strerror(ret));
        return ret;
    }
    VKLOG_INFO(g_vklog.load(), "[run_thread] create success. %s (%d)\n", thread_name, 0);
    VKLOG_TRACE(g_vklog_console_debug.load(), "[run_thread] create success. %s (%d)\n", thread_name, 0);
    return 0;
}

int setDGAddrFromStr(const char *text, void *addr_out, int addr_size, int32_t *port_out)
{
    if (text == nullptr || addr_out == nullptr || port_out == nullptr)
        return -1;
    char data[256];
    vk_strlcpy(data, text);
    char *colon = strrchr(data, ':');
    if (colon == nullptr) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR]\n");
        return -2;
    }
    *colon = '\0';
    const char *port_text = colon + 1;
    errno = 0;
    long port = strtol(port_text, nullptr, 10);
    if (errno != 0 || port < 1 || port > 65535) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR(port)]\n");
        return -3;
    }
    *port_out = static_cast<int32_t>(port);
    char ip_text[48];
    if (getIPFromDomain(data, ip_text, sizeof(ip_text)) < 0) {
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR(ip)]\n");
        return -4;
    }
    if (addr_size != 4)
        return -5; // only IPv4 receivers are supported
    VKLOG_DEBUG(g_vklog.load(), "[setDGAddrFromStr] data[%s] IP[%s] PORT[%d]\n", text, ip_text,
                static_cast<int>(port));
    in_addr addr{};
    if (inet_pton(AF_INET, ip_text, &addr) != 1)
        return -5; // the host resolved to an IPv6 address
    memcpy(addr_out, &addr, sizeof(addr));
    return 0;
}

int set_dg_address()
{
    memset(&g_dgconn_slave_info, 0, sizeof(g_dgconn_slave_info));
    char value[sizeof(g_dgconn_slave_info.addr_text)];
    if (get_properties_preset("MGR_RECEIVER_ADDR", value, sizeof(value)) > 0) {
        VK_SIGNAL_DEBUG(SIGNAL_DEBUG_MAIN);
        if (setDGAddrFromStr(value, &g_dgconn_slave_info.ip, 4, &g_dgconn_slave_info.port) == 0)
            vk_strlcpy(g_dgconn_slave_info.addr_text, value);
        else
            VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020020] Wrong option value. [MGR_RECEIVER_ADDR]\n");
    }
    if (g_dgconn_slave_info.ip == 0)
        VKLOG_ERROR(g_vklog.load(), "[KTR-OSM-00020020] receiver ip:port [MGR_RECEIVER_ADDR] is empty.\n");
    return 0;
}

// ---- DG clock difference ------------------------------------------------------------------

int32_t g_narr_difftime[TIMESYNC_SAMPLE_COUNT];
int32_t g_ncnt_timesync = 0;
std::atomic<int32_t> g_ndif_timesync{0};
std::atomic<int32_t> g_difftime_switch{1};

int diff_time_sync(int32_t sample)
{
    VK_SIGNAL_DEBUG(SIGNAL_DEBUG_DGCONN);
    if (g_ncnt_timesync < 0 || g_ncnt_timesync >= TIMESYNC_SAMPLE_COUNT)
        g_ncnt_timesync = 0;
    g_narr_difftime[g_ncnt_timesync++] = sample;
    if (g_ncnt_timesync < TIMESYNC_SAMPLE_COUNT)
        return g_ncnt_timesync;
    int32_t sorted[TIMESYNC_SAMPLE_COUNT];
    std::copy(std::begin(g_narr_difftime), std::end(g_narr_difftime), sorted);
    std::sort(std::begin(sorted), std::end(sorted));
    // The two smallest and the two largest samples are outliers (a delayed reply, a
    // scheduling hiccup); the middle six are averaged.
    int64_t sum = 0;
    for (int i = 2; i < TIMESYNC_SAMPLE_COUNT - 2; i++)
        sum += sorted[i];
    g_ndif_timesync.store(static_cast<int32_t>(sum / (TIMESYNC_SAMPLE_COUNT - 4)));
    g_ncnt_timesync = 0;
    return 0;
}

int32_t get_diff_timesync()
{
    return g_difftime_switch.load() != 0 ? g_ndif_timesync.load() : 0;
}

int64_t get_dgtime()
{
    return now_time() - get_diff_timesync();
}

int set_DG_difftime(int value)
{
    if (value == 0 || value == 1)
        g_difftime_switch.store(value);
    return value;
}

int64_t now_time()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

// ---- NIO packet ids -----------------------------------------------------------------------

namespace
{
pthread_spinlock_t g_nio_seq_lock;
uint32_t s_packet_id = 0; // guarded by g_nio_seq_lock
} // namespace

int nio_seq_lock_init()
{
    int ret = pthread_spin_init(&g_nio_seq_lock, PTHREAD_PROCESS_PRIVATE);
    if (ret != 0) {
        VKLOG_ERROR(g_vklog.load(), "[nio_seq_lock_init] Failed init spinlock(%d)(%d)\n", ret, errno);
        g_stop_the_world.store(1);
        return -1;
    }
    return 0;
}

uint32_t get_nio_pkt_id()
{
    pthread_spin_lock(&g_nio_seq_lock);
    uint32_t id = s_packet_id++;
    pthread_spin_unlock(&g_nio_seq_lock);
    return id;
}

// ---- properties preset table -------------------------------------------------

namespace
{
// The properties preset table: main thread only in practice, locked all the same.
std::mutex s_preset_lock;
map_t preset_map{};
bool s_preset_ready = false;
constexpr int k_preset_buckets = 128;
} // namespace

int init_properties_preset()
{
    std::lock_guard guard(s_preset_lock);
    if (s_preset_ready)
        map_destroy(&preset_map);
    s_preset_ready = map_init(&preset_map, k_preset_buckets, sizeof(properties_preset_t)) == 0;
    return s_preset_ready ? 0 : -1;
}

int set_properties_preset(const char *key, int key_len, const char *value, int value_len)
{
    if (key == nullptr || value == nullptr)
        return -1;
    auto *entry = static_cast<properties_preset_t *>(calloc(1, sizeof(properties_preset_t)));
    if (entry == nullptr)
        return -1;
    size_t klen = key_len > 0 ? strnlen(key, static_cast<size_t>(key_len)) : 0;
    size_t vlen = value_len > 0 ? strnlen(value, static_cast<size_t>(value_len)) : 0;
    vk_strlcpy(entry->key, std::string_view(key, klen));
    entry->value_len = static_cast<int32_t>(vk_strlcpy(entry->value, std::string_view(value, vlen)));
    std::lock_guard guard(s_preset_lock);
    void *found = nullptr;
    if (s_preset_ready && map_lookup(&preset_map, entry->key, sizeof(entry->key), &found) == 1) {
        free(entry); // the first value set wins
        return 0;
    }
    if (!s_preset_ready || map_setat(&preset_map, entry->key, sizeof(entry->key), entry) < 0) {
        free(entry);
        return -1;
    }
    return 0;
}

int get_properties_preset(const char *key, char *dest, int size)
{
    if (key == nullptr)
        return -1;
    char lookup_key[sizeof(properties_preset_t::key)] = {};
    vk_strlcpy(lookup_key, key);
    std::lock_guard guard(s_preset_lock);
    void *found = nullptr;
    if (!s_preset_ready || dest == nullptr || size <= 0 ||
        map_lookup(&preset_map, lookup_key, sizeof(lookup_key), &found) != 1 || found == nullptr)
        return 0;
    const auto *entry = static_cast<const properties_preset_t *>(found);
    if (entry->value_len >= size)
        return 0; // a value that does not fit counts as absent
    memcpy(dest, entry->value, static_cast<size_t>(entry->value_len));
    dest[entry->value_len] = '\0';
    return entry->value_len;
}
