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
