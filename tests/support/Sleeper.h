#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

/// Runs an action on a thread of its own and tells when that thread waits for something: to show that an action blocks
/// without guessing how long it would take if it did not.
class Sleeper
{
public:
    explicit Sleeper(std::function<void()> action)
        : mThread([this, action = std::move(action)] {
            mTid = gettid();
            action();
            mDone = true;
        })
    {}
    ~Sleeper() { mThread.join(); }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    /// Waits until the thread waits or is done. True when it waits; ten seconds at most.
    bool fallsAsleep() const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (int asleep = 0; !mDone && std::chrono::steady_clock::now() < deadline;) {
            asleep = mTid != 0 && state() == 'S' ? asleep + 1 : 0;
            if (asleep == kInARow)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    bool isDone() const { return mDone; }
    std::thread::native_handle_type handle() { return mThread.native_handle(); }

private:
    static constexpr int kInARow = 20; ///< a moment's wait for the allocator's lock is none

    /// The letter that the kernel gives the thread's state, behind "tid (name) ".
    char state() const
    {
        std::ifstream file("/proc/self/task/" + std::to_string(mTid) + "/stat");
        std::string line;
        std::getline(file, line);
        const auto nameEnd = line.rfind(')');
        return nameEnd == std::string::npos || nameEnd + 2 >= line.size() ? '?' : line[nameEnd + 2];
    }

    std::atomic<pid_t> mTid = 0;
    std::atomic<bool> mDone = false;
    std::thread mThread;
};
