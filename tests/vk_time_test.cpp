// vk_time: the whole-second wait that the one-second loops are built on.
#include <gtest/gtest.h>

#include <ctime>

#include "vk_time.h"

namespace
{

int64_t wall_second()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

TEST(VkTime, WaitForSecondReachesTheTickOrGivesUpOnAClockSetBack)
{
    // A tick a minute or more ahead (the clock went back) ends the wait at once.
    int64_t before = wall_second();
    int64_t returned = vk_wait_for_second(before + 120);
    EXPECT_LE(returned, before + 1);

    // The next whole second is reached, not undershot, even though the sleep is a single
    // step straight to it.
    int64_t tick = wall_second() + 1;
    EXPECT_GE(vk_wait_for_second(tick), tick);
    EXPECT_GE(wall_second(), tick);

    // Two seconds ahead takes steps of at most a second and still lands on the tick.
    tick = wall_second() + 2;
    int64_t reached = vk_wait_for_second(tick);
    EXPECT_GE(reached, tick);
    EXPECT_LE(reached, tick + 1);
}

TEST(VkTime, SleepTowardStopsAtTheTargetOrTheCap)
{
    // A target in the past does not sleep; a far target sleeps only the cap.
    int64_t start = vk_get_time_msec();
    vk_sleep_toward(wall_second() - 5, 0, 1000);
    vk_sleep_toward(wall_second() + 30, 0, 50);
    int64_t took = vk_get_time_msec() - start;
    EXPECT_GE(took, 50);
    EXPECT_LT(took, 1000);
}

} // namespace
