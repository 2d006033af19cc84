// vk_time: wall-clock and sleep helpers shared by every unit. Safe from any thread.
#pragma once

#include <cstdint>

// Wall-clock time (realtime clock) in milliseconds since the epoch. Cannot fail.
int64_t vk_get_time_msec();
// Sleeps `msec` milliseconds (restarting after signals until the time has passed);
// zero or negative returns at once.
void vk_sleep(int64_t msec);
