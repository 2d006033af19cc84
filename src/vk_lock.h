// vk_lock: the agent's mutex wrapper over pthread mutexes (vkLock/vkUnlock), used by
// every unit that guards shared state. vklock_t is BasicLockable, so scoped holders use
// std::lock_guard<vklock_t>. All functions are safe to call from any thread.
#pragma once

#include <pthread.h>

struct vklock_t {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

    void lock();
    void unlock();
};

// Initialises (or re-initialises an unused) lock. Returns 0, or the pthread error number.
[[nodiscard]] int vklock_init(vklock_t *lock);
// Destroys a lock nobody holds. Returns 0, -1 for a null lock, or the pthread error number.
int vklock_destroy(vklock_t *lock);
// Takes / releases the lock. Return 0, -1 for a null lock, or the pthread error number.
int vkLock(vklock_t *lock);
int vkUnlock(vklock_t *lock);
