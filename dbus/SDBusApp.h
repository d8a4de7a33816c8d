#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

/// The client of the idle application, the full-screen program that shows the boot animation and a status text until
/// the visualisation takes over. Each call opens and closes a connection of its own to the user bus; calls of several
/// threads follow one another. Failures are silent, but for a bus that cannot be opened.
class SDBusApp
{
public:
    SDBusApp() = default;
    virtual ~SDBusApp(); ///< stops and waits for the threads of delayed exits
    SDBusApp(const SDBusApp&) = delete;
    SDBusApp& operator=(const SDBusApp&) = delete;

    /// Later calls do nothing, and delayed exits that are still to come are given up; a call that has just begun is
    /// still made.
    void stop();

    /// Calls a method with the one argument, or with none when it is empty.
    void appDBusCall(const std::string& method, const std::string& arg);
    void appExit();
    void appDisableAnimation();
    void appSetTextMsg(const std::string& text);

    /// Tells the application to exit after so many seconds, from a thread of its own, or from the caller's when there
    /// is none to be had; at once for less than 1. Does nothing while kMaxDelayedExits are still to come.
    void delayedExit(long long seconds);
    static constexpr unsigned int kMaxDelayedExits = 64;

private:
    void delayedExitExec(long long seconds);

    std::mutex mCallMutex; ///< one call at a time
    std::mutex mStateMutex;
    std::condition_variable mStateChanged;
    bool mStopped = false;          ///< guarded by mStateMutex
    unsigned int mDelayedExits = 0; ///< threads under way, guarded by mStateMutex
};
