// pub_func: the thread starter used for every worker thread (run_thread), the properties
// preset table (values handed over from the environment: the DG address, the umask rules),
// the DG receiver address g_dgconn_slave_info parsed from MGR_RECEIVER_ADDR, the clock difference to the DG
// (time-sync rounds) and the NIO packet id counter. Called by main/process_main, the
// connection thread and the message handlers.
// Thread safety: run_thread may be called from any thread; the preset table has its own lock; the address is written by the
// main thread before the worker threads start and afterwards only by the connection thread,
// its one reader. The time-sync samples are the connection thread's; the difference and the
// packet ids may be read from any thread.
// Interface only, kept for the unit's completeness (nothing in the agent calls them): get_dgtime,
// set_DG_difftime, get_nio_pkt_id.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

// The DG receiver address.
struct dgconn_slave_info_t {
    uint32_t ip;        // IPv4 address in network byte order; 0 = no receiver
    int32_t port;       // 1..65535
    char addr_text[32]; // "ip:port" as configured, at most 31 characters
};

extern dgconn_slave_info_t g_dgconn_slave_info;

// Stack size of every worker thread (10 MiB).
inline constexpr size_t VK_THREAD_STACK_SIZE = 10485760;

// Starts start_routine(argument) with `attributes` (main prepares them detached with
// VK_THREAD_STACK_SIZE stacks), storing its id in thread_id_out, and logs the outcome under
// thread_name. Returns 0, or pthread_create's error number (logged; no thread exists then).
int run_thread(pthread_t *thread_id_out, const pthread_attr_t *attributes, void *(*start_routine)(void *),
               void *argument, const char *thread_name);

// Parses "host:port" (split at the last ':'; host a name or a dotted address) into the
// IPv4 address addr_out (addr_size bytes, network order) and port_out. Returns 0; -1 null
// argument; -2 no ':'; -3 port not in 1..65535 (trailing non-digits are ignored); -4 the host
// does not resolve (port_out already stored); -5 addr_size is not 4 or the host resolves to
// no IPv4 address (port_out stored, addr_out untouched). Each failure but -1 and -5 is
// logged at ERROR.
[[nodiscard]] int setDGAddrFromStr(const char *text, void *addr_out, int addr_size, int32_t *port_out);

// Fills g_dgconn_slave_info from the "MGR_RECEIVER_ADDR" properties preset (a value of 32
// or more characters counts as absent); logs when the address is wrong or missing. Always
// returns 0: the connection thread reports a missing receiver itself.
int set_dg_address();

// ---- DG clock difference and NIO packet ids ----------------------------------------------
// The difference is measured in rounds of ten time-sync exchanges on the connection thread,
// which alone writes the samples; any thread may read the difference.

inline constexpr int TIMESYNC_SAMPLE_COUNT = 10;

extern int32_t g_narr_difftime[TIMESYNC_SAMPLE_COUNT]; // samples of the round in progress
extern int32_t g_ncnt_timesync;                        // samples collected in it, 0..9
extern std::atomic<int32_t> g_ndif_timesync;           // agent clock minus DG clock, ms
extern std::atomic<int32_t> g_difftime_switch;         // 1 applies the difference, 0 ignores it

// Adds one sample (agent clock minus DG clock, ms) to the round. On the tenth the two
// smallest and two largest are dropped and the mean of the middle six (truncated toward
// zero) becomes the difference. Returns the samples collected so far (0 after a round).
int diff_time_sync(int32_t sample);
// The difference when the switch is on, else 0.
[[nodiscard]] int32_t get_diff_timesync();
// now_time() minus the difference when the switch is on: the DG's clock in ms.
[[nodiscard]] int64_t get_dgtime();
// 0 turns the switch off, 1 on; other values change nothing. Returns value.
int set_DG_difftime(int value);
// Milliseconds since the epoch from gettimeofday.
[[nodiscard]] int64_t now_time();

// Initialises the spin lock of the packet id counter (process-private). Returns 0; -1 on
// failure, logged at ERROR, with g_stop_the_world raised.
int nio_seq_lock_init();
// The next NIO packet id (starting at 0, wrapping at 2^32). Senders still write 0 in the
// sub header; the counter is kept for that field.
uint32_t get_nio_pkt_id();

// ---- properties preset table -------------------------------------------------

// One entry of the properties preset table; the 128-byte NUL-padded key is the map key.
struct properties_preset_t {
    char key[128];
    char value[1024];
    int32_t value_len;
};

// Creates (or empties) the properties preset table. Returns 0; -1 when it cannot be
// allocated (the table is then absent: lookups find nothing, inserts fail).
int init_properties_preset();
// Stores value under key unless the key is present (the first value wins; 0 then too).
// Key and value are cut to key_len / 127 and value_len / 1023 characters. Returns 0; -1
// for a null key or value, or when the entry cannot be allocated or stored.
int set_properties_preset(const char *key, int key_len, const char *value, int value_len);
// Copies the value stored under key into dest and terminates it. Returns its length; 0
// when absent or when it does not fit in size - 1 characters (dest untouched); -1 for a
// null key.
int get_properties_preset(const char *key, char *dest, int size);
