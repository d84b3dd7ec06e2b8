/* The mutexes of orx_base.h: error-checking ones. */

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "orx_base.h"
#include "orx_host.h"

namespace
{

constexpr char kFile[] = "mutex.c";

std::atomic<unsigned long long> lock_count;

/* A misused mutex is a bug of the caller that is hard to find later, so it is reported at once. */
int report(const char *what, int error)
{
    if (error != 0)
        error_output(ORX_LOG_ERROR, kFile, __LINE__, "mutex %s failed: %s", what, strerror(error));
    return -error;
}

/* Error-checking: locking twice on one thread (a client callback that calls the module) and unlocking what another
 * thread holds are results instead of a hang and a broken lock. */
int init_checked(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    int error = pthread_mutexattr_init(&attr);
    if (error != 0)
        return error;
    error = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    if (error == 0)
        error = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return error;
}

}  // namespace

void *th_mutex_init(void)
{
    auto *mutex = static_cast<pthread_mutex_t *>(malloc(sizeof(pthread_mutex_t)));
    if (mutex && init_checked(mutex) != 0) {
        free(mutex);
        return nullptr;
    }
    return mutex;
}

/* 0, or the negative error number: -EINVAL for null, -EDEADLK when this thread holds the mutex already. */
int th_mutex_lock(void *mutex)
{
    const int error = mutex ? pthread_mutex_lock(static_cast<pthread_mutex_t *>(mutex)) : EINVAL;
    if (error == 0)
        lock_count.fetch_add(1, std::memory_order_relaxed);
    return report("lock", error);
}

unsigned long long orx_host_lock_count(void) { return lock_count.load(std::memory_order_relaxed); }

/* 0, or the negative error number: -EINVAL for null, -EPERM when this thread does not hold the mutex. */
int th_mutex_unlock(void *mutex)
{
    return report("unlock", mutex ? pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)) : EINVAL);
}

/* A mutex that is held stays, leaked: its holder will unlock it yet. */
void th_mutex_destroy(void *mutex)
{
    if (mutex && report("destroy", pthread_mutex_destroy(static_cast<pthread_mutex_t *>(mutex))) == 0)
        free(mutex);
}
