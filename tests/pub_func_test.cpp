// Tests of run_thread: a started thread runs with the given attributes; a thread that cannot
// be created returns pthread_create's error and start-up can go on.
#include "pub_func.h"

#include <gtest/gtest.h>

#include <atomic>

#include "vk_time.h"

namespace
{

std::atomic<size_t> s_stack_size{0}; // static: the detached thread may outlive the test frame

void *record_stack_size(void *)
{
    pthread_attr_t attr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    }
    s_stack_size.store(size);
    return nullptr;
}

TEST(RunThread, StartsDetachedWithItsStackOrReportsTheError)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, VK_THREAD_STACK_SIZE);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid{};
    EXPECT_EQ(run_thread(&tid, &attr, record_stack_size, nullptr, "THR_TEST"), 0);
    for (int i = 0; i < 200 && s_stack_size.load() == 0; i++)
        vk_sleep(50);
    EXPECT_GE(s_stack_size.load(), VK_THREAD_STACK_SIZE);

    // A stack no machine can map makes pthread_create fail; the error number comes back.
    ASSERT_EQ(pthread_attr_setstacksize(&attr, size_t{1} << 46), 0);
    EXPECT_GT(run_thread(&tid, &attr, record_stack_size, nullptr, "THR_TOO_BIG"), 0);
    pthread_attr_destroy(&attr);
}

} // namespace
