// vk_notify: the service manager's notification channel (the sd_notify datagram protocol)
// and the worker threads' heartbeats that decide whether the watchdog is fed.
// Without NOTIFY_SOCKET in the environment at start nothing is ever sent. The variables
// are removed from the environment once read, so no script inherits them.
#pragma once

#include <cstdint>
#include <string_view>

// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID once and removes them from the
// environment. Returns 1 when notifications are on, 0 when not, -1 when NOTIFY_SOCKET is
// set but unusable (logged by the caller; the agent runs on without notifications).
int vk_notify_init();
// The watchdog period asked for by the service manager in microseconds, 0 when none (or
// when WATCHDOG_PID names another process).
uint64_t vk_notify_watchdog_usec();
// Sends one datagram of newline-separated assignments ("READY=1", "STATUS=..."). Never
// blocks. Returns 0 when sent or when notifications are off, -1 on failure.
int vk_notify_send(std::string_view state);
// Sends "STATUS=<text>" when the text differs from the last one sent.
void vk_notify_status(std::string_view text);

// ---- heartbeats -----------------------------------------------------------------------
enum vk_heartbeat_t { HEARTBEAT_DGCONN = 0, HEARTBEAT_COMMAND = 1, HEARTBEAT_COUNT = 2 };
// Marks a thread's loop (or the script runner's wait for the command thread) as alive now.
void vk_heartbeat(vk_heartbeat_t thread);
// True when every thread has stamped within the last `within_ms` milliseconds.
bool vk_heartbeats_fresh(uint64_t within_ms);
