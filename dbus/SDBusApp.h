#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

/// The client of the idle application, the full-screen program that shows the boot animation and a status text until
/// the visualisation takes over. Each call opens and closes a connection of its own to the user bus; calls of several
/// threads follow one another. Failures are silent, but for a bus that cannot be opened.
class SDBusApp
{
public:
    SDBusApp() = default;
    virtual ~SDBusApp(); ///< stops, and waits for the thread of the delayed exits
    SDBusApp(const SDBusApp&) = delete;
    SDBusApp& operator=(const SDBusApp&) = delete;

    /// Later calls do nothing, and delayed exits that are still to come are given up; a call that has just begun is
    /// still made, and waits a quarter of a second for its answer.
    void stop();

    /// Calls a method with the one argument, or with none when it is empty.
    void appDBusCall(const std::string& method, const std::string& arg);
    void appExit();
    void appDisableAnimation();
    void appSetTextMsg(const std::string& text);

    /// Tells the application to exit after so many seconds, at once for less than 1: from a thread that keeps all these
    /// exits, or from the caller's where there is none to be had. Does nothing while kMaxDelayedExits are still to
    /// come.
    void delayedExit(long long delayS);
    static constexpr std::size_t kMaxDelayedExits = 65536;

private:
    using tTime = std::chrono::steady_clock::time_point;

    bool queueExit(tTime time);
    void runExits();
    void delayedExitExec(long long delayS);
    bool isStopped();

    std::mutex mCallMutex; ///< one call at a time
    std::mutex mStateMutex;
    std::condition_variable mStateChanged;
    // Guarded by mStateMutex
    bool mStopped = false;
    std::priority_queue<tTime, std::vector<tTime>, std::greater<>> mExits; ///< still to come, the next one first
    std::thread mExitThread;                                               ///< started by the first exit
};
