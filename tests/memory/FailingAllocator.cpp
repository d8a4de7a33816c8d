#include "FailingAllocator.h"

#include <cerrno>
#include <cstddef>

namespace {

std::atomic<allocator::tControl*> sControl = nullptr;

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
    sControl = &control;
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
}
