#include "fuzz/InlineThreads.h"

#include <dlfcn.h>
#include <pthread.h>

// The program's own pthread_create, pthread_join and pthread_detach stand before the C library's. Outside of an
// InlineThreads they pass on to the sanitizer's, or to the C library's where there is none.

namespace {

thread_local bool sInline = false;
constexpr pthread_t kFinished = 1; ///< no thread has this handle

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

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept
{
    if (!sInline)
        return next(__interceptor_pthread_create, "pthread_create")(thread, attributes, body, argument);
    body(argument);
    *thread = kFinished;
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
}
