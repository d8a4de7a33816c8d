#include "FailingAllocator.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>
#include <cstddef>

namespace {

using CreateThread = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

std::atomic<allocator::tControl*> sControl = nullptr;

/// The C library's own.
CreateThread* createThread()
{
    static auto* const found = reinterpret_cast<CreateThread*>(dlsym(RTLD_NEXT, "pthread_create"));
    return found;
}

bool fails()
{
    allocator::tControl* control = sControl;
    return control != nullptr && ++control->count == control->failAt;
}

void* exhausted()
{
    errno = ENOMEM;
    return nullptr;
}

} // namespace

void allocator::arm(tControl& control)
{
    createThread(); // what the search allocates is not counted
    sControl = &control;
}

void allocator::disarm()
{
    sControl = nullptr;
}

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) noexcept
{
    return fails() ? exhausted() : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept
{
    return fails() ? exhausted() : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept
{
    return fails() ? exhausted() : __libc_realloc(block, size);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept
{
    if (fails()) {
        sControl.load()->threadFailed = true;
        return EAGAIN;
    }
    return createThread()(thread, attributes, body, argument);
}
}
