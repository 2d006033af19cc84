// vk_time: wall-clock and sleep helpers shared by every unit. Safe from any thread.
#pragma once

#include <cstdint>

// Wall-clock time (realtime clock) in milliseconds since the epoch. Cannot fail.
int64_t vk_get_time_msec();
// Sleeps `msec` milliseconds (restarting after signals until the time has passed);
// zero or negative returns at once.
void vk_sleep(int64_t msec);
// Sleeps until the wall clock reaches `sec`.`usec`, or for at most `max_msec`, whichever
// comes first; a signal ends the sleep early. Returns at once when that time has passed.
// Callers re-read the clock and loop: a bounded step notices a clock set back.
void vk_sleep_toward(int64_t sec, int64_t usec, int64_t max_msec);
// Waits until the wall clock reaches whole second `tick` (seconds since the epoch), or at
// once when tick lies 60 s or more ahead (the clock was set back). Sleeps straight to the
// tick in steps of at most a second, so an idle thread wakes about once a second. Returns
// the wall-clock second at the end of the wait; the next tick is that plus one.
int64_t vk_wait_for_second(int64_t tick);
