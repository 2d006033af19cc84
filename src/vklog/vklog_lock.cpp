// vklog_lock: the library's mutex (vklog_lock_t) and the two process-wide locks of the file
// output: the rotation claim lock and the backup directory scan lock. Used by every vklog
// unit; all functions are safe from any thread.
#include "vklog_internal.h"

vklog_lock_t g_file_backup_lock;
vklog_lock_t g_dir_lock;

void vklog_lock_t::lock()
{
    pthread_mutex_lock(&mutex);
}

void vklog_lock_t::unlock()
{
    pthread_mutex_unlock(&mutex);
}

int vl_lock_init(vklog_lock_t *lock)
{
    if (lock == nullptr)
        return -1;
    return pthread_mutex_init(&lock->mutex, nullptr) == 0 ? 0 : -1;
}
