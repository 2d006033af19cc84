// vk_time: wall-clock milliseconds and sleeping; see vk_time.h.
#include "vk_time.h"

#include <cerrno>
#include <ctime>

int64_t vk_get_time_msec()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void vk_sleep(int64_t msec)
{
    if (msec <= 0)
        return;
    timespec req{static_cast<time_t>(msec / 1000), static_cast<long>((msec % 1000) * 1000000)};
    timespec rem{};
    // A signal (SIGHUP is handled and returns) must not cut a sleep short.
    while (nanosleep(&req, &rem) != 0 && errno == EINTR)
        req = rem;
}

void vk_sleep_toward(int64_t sec, int64_t usec, int64_t max_msec)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // Microseconds left; a target a minute or more ahead is capped before it can overflow.
    int64_t ahead_s = sec - static_cast<int64_t>(now.tv_sec);
    if (ahead_s > 60)
        ahead_s = 60;
    int64_t left_us = ahead_s * 1000000 + usec - now.tv_nsec / 1000;
    if (left_us <= 0 || max_msec <= 0)
        return;
    if (left_us > max_msec * 1000)
        left_us = max_msec * 1000;
    // Relative, not an absolute wall-clock sleep: a clock set back must not stretch it.
    timespec req{static_cast<time_t>(left_us / 1000000), static_cast<long>((left_us % 1000000) * 1000)};
    nanosleep(&req, nullptr);
}

int64_t vk_wait_for_second(int64_t tick)
{
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec >= tick || tick - now.tv_sec >= 60)
            return static_cast<int64_t>(now.tv_sec);
        vk_sleep_toward(tick, 0, 1000);
    }
}
