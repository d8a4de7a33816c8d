#pragma once

#include <atomic>
#include <string>
#include <thread>

/// Makes QV's end of a simulated line a device that a program can open: passes the bytes between the line's master and
/// the master of a pty of its own, as a cable would.
class LineBridge
{
public:
    /// The descriptor stays the caller's and must live longer.
    explicit LineBridge(int lineMaster);
    LineBridge(const LineBridge&) = delete;
    LineBridge& operator=(const LineBridge&) = delete;
    ~LineBridge();

    /// What to open.
    const std::string& device() const { return mDevice; }

private:
    void pass(int from, int to) const;
    void run();

    int mLine;
    int mOwn = -1;
    int mHeldOpen = -1; ///< so that the pty does not hang up between two programs
    int mStop = -1;
    std::string mDevice;
    std::thread mThread;
};
