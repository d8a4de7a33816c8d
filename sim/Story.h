#pragma once

#include "qv/Peer.h"
#include "sim/LineTap.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

/// A step of the story did not happen.
class StoryFailure : public std::runtime_error
{
public:
    StoryFailure(const std::string& step, const std::string& expected, const std::string& seen);
};

/// The life of a display from the daemon's start to the system update, played on the device and checked step by step:
/// what QV asks, what reaches the services and in which order, what the desktop is told, what QV is answered.
class Story
{
public:
    /// bootFile: the commands with which QV starts up.
    Story(Device& device, qv::Peer& peer, std::string daemon, std::string bootFile);

    /// All steps but the last. Throws StoryFailure at the first thing that does not happen.
    void play();
    /// The last one: QV starts the update, and the daemon ends.
    void playUpdate();
    /// The end when people have looked around: the daemon is asked to stop, and stops.
    void stop();

private:
    using Calls = std::vector<std::string>;

    /// A request of QV and what it must come to.
    struct tAsked
    {
        const char* request; ///< as typed at QV's prompt
        const char* value;   ///< of a read
        Calls calls;         ///< everything that the system daemon is asked meanwhile
    };

    void begin(const std::string& title);
    /// Ends the step: nothing in it may have been answered by an error.
    void seen(const std::string& what) const;
    [[noreturn]] void fail(const std::string& expected, const std::string& seen) const;
    /// Each is waited for, in this order; gives the last.
    tEvent expectInOrder(const std::vector<Match>& wanted);
    /// Each is waited for, in any order.
    void expectAll(const std::vector<Match>& wanted);
    void expectEqual(const std::string& what, const std::string& expected, const std::string& seenText) const;
    /// A request as typed at QV's prompt; gives the value of a read.
    std::string ask(const std::string& text);
    void check(const tAsked& asked);

    void daemonStarts();
    void qvOpensTheLink();
    void qvReadsEveryRegister();
    void desktopReadsEveryProperty();
    void qvAsksForUpdates();
    void qvPlaysItsStartUp();
    void logosFinish();
    void qvDoesEverythingElse();
    void qvMoves();
    void userOpensDiagnostics();
    void idleApplicationExits();
    void everythingWasUsed();

    Device& mDevice;
    Timeline& mTimeline;
    qv::Peer& mPeer;
    const std::string mDaemon;
    const std::string mBootFile;
    std::string mTitle;
    unsigned mNumber = 0;
    std::size_t mFrom = 0; ///< where the step began
};

} // namespace sim
