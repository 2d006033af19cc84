// vk_lock: the agent's pthread mutex wrapper; see vk_lock.h.
#include "vk_lock.h"

#include <cassert>

void vklock_t::lock()
{
    [[maybe_unused]] int rc = pthread_mutex_lock(&mutex);
    assert(rc == 0 && "locking a valid mutex cannot fail");
}

void vklock_t::unlock()
{
    [[maybe_unused]] int rc = pthread_mutex_unlock(&mutex);
    assert(rc == 0 && "unlocking a held mutex cannot fail");
}

int vklock_init(vklock_t *lock)
{
    if (lock == nullptr)
        return -1;
    return pthread_mutex_init(&lock->mutex, nullptr);
}

int vklock_destroy(vklock_t *lock)
{
    if (lock == nullptr)
        return -1;
    return pthread_mutex_destroy(&lock->mutex);
}

int vkLock(vklock_t *lock)
{
    if (lock == nullptr)
        return -1;
    return pthread_mutex_lock(&lock->mutex);
}

int vkUnlock(vklock_t *lock)
{
    if (lock == nullptr)
        return -1;
    return pthread_mutex_unlock(&lock->mutex);
}
