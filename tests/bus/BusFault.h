#pragma once

#include <cstddef>
#include <string>
#include <thread>

/// Makes calls of the bus library fail while the object lives: functions that fail in the field only when memory runs
/// out or a kernel limit is met. This executable puts its own functions before those of the library; calls that the
/// library makes to itself are never failed. One fault at a time.
class BusFault
{
public:
    enum ThreadE
    {
        eThisThread,
        eAnyThread
    };

    /// The named function gives the result instead of doing its work: after so many calls that still work, for so many
    /// calls.
    BusFault(std::string function, int result, std::size_t skip = 0, std::size_t times = 1000000,
             ThreadE threads = eThisThread);
    BusFault(const BusFault&) = delete;
    BusFault& operator=(const BusFault&) = delete;
    ~BusFault();

    /// How many calls have failed.
    std::size_t failed() const;
};
