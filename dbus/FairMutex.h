#pragma once

#include <condition_variable>
#include <mutex>

/// A mutex that goes to its waiters in the order of their coming: a thread that locks it again and again, as a loop
/// does, never keeps the others out.
class FairMutex
{
public:
    FairMutex() = default;
    FairMutex(const FairMutex&) = delete;
    FairMutex& operator=(const FairMutex&) = delete;

    void lock()
    {
        std::unique_lock state(mState);
        const unsigned int turn = mNext++;
        mFreed.wait(state, [&] { return mServed == turn; });
    }

    void unlock()
    {
        const std::lock_guard state(mState);
        ++mServed;
        mFreed.notify_all();
    }

private:
    std::mutex mState;
    std::condition_variable mFreed;
    unsigned int mNext = 0;   ///< guarded by mState, as mServed: the turn that the next one to come will have
    unsigned int mServed = 0; ///< the turn that may go on; both may wrap around
};
