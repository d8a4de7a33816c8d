#pragma once

#include <termios.h>

#include <chrono>
#include <deque>
#include <string>
#include <vector>

/// Stands in for the system below a serial port while it lives: calls on its one descriptor follow a script and are
/// written down, and every sleep is over at once. Calls on any other descriptor go to the system. One thread only.
class SystemScript
{
public:
    static constexpr int kFd = 4711;
    static constexpr char kDevice[] = "/dev/scripted";

    struct tAnswer
    {
        int result;
        int error = 0;       ///< errno when the result is -1
        short revents = 0;   ///< of a poll
        std::string bytes{}; ///< of a read
    };

    SystemScript();
    ~SystemScript();
    SystemScript(const SystemScript&) = delete;
    SystemScript& operator=(const SystemScript&) = delete;

    // The script; a call beyond its end succeeds: a poll finds what it asks for, a write takes all, a read gives none.
    std::deque<tAnswer> mPolls;
    std::deque<tAnswer> mReads;
    std::deque<tAnswer> mWrites;
    std::deque<std::chrono::nanoseconds> mInterruptedSleeps; ///< what is left of each when a signal comes
    int mOpenError = 0;
    int mGetAttributesResult = 0;
    int mSetAttributesResult = 0;
    termios mAttributes{}; ///< what the line has; setting them changes this

    // What happened.
    std::vector<std::string> mCalls; ///< such as "poll in 1000", "sleep 607638 ns", "read 64", "write abc"
    int mOpenFlags = 0;
    int mSetAction = -1; ///< TCSANOW and the like
    std::chrono::nanoseconds mSlept{0};
};
