// pub_func: the thread starter used for every worker thread (run_thread) and the DG
// receiver address g_dgconn_slave_info, parsed once at start-up from MGR_RECEIVER_ADDR.
// Called by main/process_main and the connection thread.
// Thread safety: run_thread may be called from any thread; the address is written once by
// the main thread before the worker threads start and only read afterwards.
#pragma once

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
