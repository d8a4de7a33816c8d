#pragma once

#include "sim/Child.h"
#include "sim/PrivateBus.h"

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sim {

/// The daemon as a process on the private buses, with what it writes. Its operations are for one thread, except
/// out(), err(), waitForOutput() and signal().
class Daemon
{
public:
    struct tOptions
    {
        std::vector<std::string> arguments;
        std::map<std::string, std::string> environment; ///< added to this process's
        std::vector<std::string> wrapper;               ///< put before the executable, "valgrind" for instance
        bool closeStdout = false;                       ///< started without a standard output
        int stdoutFd = -1;                              ///< standard output goes to this descriptor instead
    };

    Daemon(Timeline& timeline, const PrivateBus& systemBus, const PrivateBus& userBus);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    /// Starts it, again too once it has ended; what it wrote before is forgotten.
    void start(const std::string& executable, const tOptions& options);
    void start(const std::string& executable, const std::vector<std::string>& arguments = {});

    pid_t pid() const { return mChild.pid(); }
    bool running();
    /// From any thread, a listener to the timeline too; nothing when it has ended.
    void signal(int number);
    /// How it ended, with all its output read; nothing at the deadline.
    std::optional<tExit> waitExit(milliseconds deadline = kDeadline);
    /// SIGKILL and wait.
    void kill();

    /// All bytes that it has written so far. Not for listeners to the timeline.
    std::string out() const;
    std::string err() const;
    /// Waits until either stream contains the text (so many times, counted over both).
    bool waitForOutput(const std::string& text, milliseconds deadline = kDeadline, std::size_t times = 1) const;

private:
    struct tStream
    {
        ChannelE channel;
        UniqueFd fd;
        std::string bytes;
        std::size_t lineStart = 0;
    };

    std::string written(const tStream& stream) const;
    void readAll();
    void take(tStream& stream);
    void endLines(tStream& stream, bool atEnd);

    Timeline& mTimeline;
    const PrivateBus& mSystemBus;
    const PrivateBus& mUserBus;
    mutable std::mutex mMutex; ///< guards the streams' bytes and descriptors
    mutable std::condition_variable mRead;
    tStream mOut{ChannelE::eStdout, {}, {}, 0};
    tStream mErr{ChannelE::eStderr, {}, {}, 0};
    std::mutex mChildMutex; ///< guards mChild's changes, all made by the owner's thread, against signal()
    Child mChild;
    std::thread mReader;
};

} // namespace sim
