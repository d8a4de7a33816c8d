#pragma once

#include <pthread.h>

#include <atomic>

/// The base of objects that run a thread of their own. start and stop belong to one thread, the owner's; the flags may
/// be asked and set from any.
class ThreadBase
{
public:
    ThreadBase() = default;
    virtual ~ThreadBase() = default;
    ThreadBase(const ThreadBase&) = delete;
    ThreadBase& operator=(const ThreadBase&) = delete;

    /// Starts the thread unless it runs.
    virtual void start();
    /// Asks the thread to end and waits until it has; returns at once when none was started.
    virtual void stop();
    /// The thread's body; looks at isStopRequested from time to time.
    virtual void Run() = 0;
    virtual bool isStopRequested() { return mStopRequested; }
    virtual void requestStop() { mStopRequested = true; }
    virtual bool isRunning() { return mRunning; }
    virtual void setStopped() { mRunning = false; }
    /// Leaves a running thread to itself. True when that failed.
    virtual bool detach();

private:
    static void* entry(void* self);

    std::atomic<bool> mStopRequested = false;
    std::atomic<bool> mRunning = false;
    pthread_t mThread{};
    bool mJoinable = false;
};
