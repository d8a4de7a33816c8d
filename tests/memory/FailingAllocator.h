#pragma once

#include <atomic>
#include <cstdint>

/// The allocator of this program, of the C++ library and of every other library in it. Unarmed it is the C library's.
namespace allocator {

/// Lies in memory that a child process shares with its parent.
struct tControl
{
    std::atomic<std::uint64_t> count{0};  ///< allocations since the child was armed
    std::atomic<std::uint64_t> failAt{0}; ///< the one that fails, counted from 1; 0: none
};

/// From now on allocations of this process are counted, and the one that `control` names fails.
void arm(tControl& control);

} // namespace allocator
