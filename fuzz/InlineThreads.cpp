#include "fuzz/InlineThreads.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

// The program's own functions stand before the C library's. Outside of an InlineThreads they pass on to the
// sanitizer's, or to the C library's where there is none.

namespace {

thread_local int sLocked = 0; ///< mutexes that are held
thread_local bool sInline = false;
thread_local int sBodies = 0;      ///< threads under way inside the call that started them
constexpr pthread_t kFinished = 1; ///< no thread has this handle
time_t sSkipped = 0;               ///< seconds that waits have not taken

/// Thrown out of a thread that waits for what only its starter could give it.
struct tEndless
{};

template <typename Function>
Function next(Function sanitizers, const char* name)
{
    return sanitizers != nullptr ? sanitizers : reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

InlineThreads::InlineThreads()
{
    sInline = true;
}

InlineThreads::~InlineThreads()
{
    sInline = false;
}

extern "C" {

__attribute__((weak)) int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*),
                                                       void*) noexcept;
__attribute__((weak)) int __interceptor_pthread_join(pthread_t, void**);
__attribute__((weak)) int __interceptor_pthread_detach(pthread_t) noexcept;
__attribute__((weak)) int __interceptor_sem_wait(sem_t*);
__attribute__((weak)) int __interceptor_pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t*, clockid_t,
                                                               const timespec*);

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept
{
    if (sInline && sLocked > 0) // the body could wait for what its starter holds
        return EAGAIN;
    if (!sInline)
        return next(__interceptor_pthread_create, "pthread_create")(thread, attributes, body, argument);
    ++sBodies;
    int result = 0;
    try {
        body(argument);
        *thread = kFinished;
    } catch (const tEndless&) {
        result = EAGAIN;
    }
    --sBodies;
    return result;
}

int sem_wait(sem_t* semaphore)
{
    if (sBodies == 0)
        return next(__interceptor_sem_wait, "sem_wait")(semaphore);
    if (sem_trywait(semaphore) != 0)
        throw tEndless();
    return 0;
}

int pthread_join(pthread_t thread, void** result)
{
    return thread == kFinished ? 0 : next(__interceptor_pthread_join, "pthread_join")(thread, result);
}

int pthread_detach(pthread_t thread) noexcept
{
    return thread == kFinished ? 0 : next(__interceptor_pthread_detach, "pthread_detach")(thread);
}

/// Nobody is there who could end the wait early. The clock goes on as if it had taken place.
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* end)
{
    if (!sInline)
        return next(__interceptor_pthread_cond_clockwait, "pthread_cond_clockwait")(condition, mutex, clock, end);
    timespec now{};
    clock_gettime(clock, &now);
    if (end->tv_sec >= now.tv_sec)
        sSkipped += end->tv_sec - now.tv_sec + 1;
    return ETIMEDOUT;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_MONOTONIC)
        now->tv_sec += sSkipped;
    return result;
}

__attribute__((weak)) int __interceptor_pthread_mutex_lock(pthread_mutex_t*) noexcept;
__attribute__((weak)) int __interceptor_pthread_mutex_unlock(pthread_mutex_t*) noexcept;

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto lock = next(__interceptor_pthread_mutex_lock, "pthread_mutex_lock");
    const int result = lock(mutex);
    if (sInline && result == 0)
        ++sLocked;
    return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto unlock = next(__interceptor_pthread_mutex_unlock, "pthread_mutex_unlock");
    if (sInline)
        --sLocked;
    return unlock(mutex);
}
}
