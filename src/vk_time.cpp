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

int64_t vk_wait_for_second(int64_t tick)
{
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec >= tick || tick - now.tv_sec >= 60)
            return static_cast<int64_t>(now.tv_sec);
        vk_sleep(100);
    }
}
