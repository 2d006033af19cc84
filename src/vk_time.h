// vk_time: wall-clock and sleep helpers shared by every unit. Safe from any thread.
#pragma once

#include <cstdint>

// Wall-clock time (realtime clock) in milliseconds since the epoch. Cannot fail.
int64_t vk_get_time_msec();
// Sleeps `msec` milliseconds (restarting after signals until the time has passed);
// zero or negative returns at once.
void vk_sleep(int64_t msec);
// Waits in 100 ms steps until the wall clock reaches whole second `tick` (seconds since the
// epoch), or at once when tick lies 60 s or more ahead (the clock was set back). Returns the
// wall-clock second at the end of the wait; the next tick is that plus one.
int64_t vk_wait_for_second(int64_t tick);
