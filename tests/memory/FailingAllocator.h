#pragma once

#include <atomic>
#include <cstdint>

/// The allocator of this program, of the C++ library and of every other library in it, and what makes its threads.
/// Unarmed they are the C library's.
namespace allocator {

/// Lies in memory that a child process shares with its parent.
struct tControl
{
    std::atomic<std::uint64_t> count{0};    ///< allocations and threads made since the child was armed
    std::atomic<std::uint64_t> failAt{0};   ///< the one that fails, counted from 1; 0: none
    std::atomic<bool> threadFailed = false; ///< it was a thread
};

/// From now on allocations and threads of this process are counted, and the one that `control` names fails.
void arm(tControl& control);

/// They are the C library's again.
void disarm();

} // namespace allocator
