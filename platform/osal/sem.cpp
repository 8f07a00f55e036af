#include "zynosal.h"

#include <pthread.h>
#include <stdlib.h>
#include <time.h>

struct tOsixSem {
    pthread_mutex_t mutex;
};

namespace
{

int initRecursive(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0)
        return -1;
    int result = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (result == 0)
        result = pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return result;
}

/** The time @a wait milliseconds from now, on the clock of pthread_mutex_timedlock. */
timespec deadline(int32_t wait)
{
    constexpr long NS_PER_MS = 1000000;
    constexpr long NS_PER_S = 1000000000;
    timespec when;
    clock_gettime(CLOCK_REALTIME, &when);
    when.tv_sec += wait / 1000;
    when.tv_nsec += wait % 1000 * NS_PER_MS;
    if (when.tv_nsec >= NS_PER_S) {
        when.tv_sec++;
        when.tv_nsec -= NS_PER_S;
    }
    return when;
}

} // namespace

tOsixSemId OsixCreateMSem(uint32_t)
{
    tOsixSemId sem = static_cast<tOsixSemId>(malloc(sizeof *sem));
    if (sem && initRecursive(&sem->mutex) != 0) {
        free(sem);
        sem = nullptr;
    }
    return sem;
}

int32_t OsixTakeSem(tOsixSemId sem, int32_t wait)
{
    if (wait < 0)
        return pthread_mutex_lock(&sem->mutex) == 0 ? 0 : -1;
    const timespec until = deadline(wait);
    return pthread_mutex_timedlock(&sem->mutex, &until) == 0 ? 0 : -1;
}

int32_t OsixGiveSem(tOsixSemId sem)
{
    return pthread_mutex_unlock(&sem->mutex) == 0 ? 0 : -1;
}

void OsixDeleteSem(tOsixSemId sem)
{
    if (!sem)
        return;
    pthread_mutex_destroy(&sem->mutex);
    free(sem);
}
