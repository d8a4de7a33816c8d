#pragma once

#include "qv/Peer.h"
#include "qv/Request.h"

#include <atomic>
#include <functional>
#include <iosfwd>

namespace qv {

/// How a command ended; also the exit status of vorlan-qv.
enum StatusE : int
{
    eStatusDone = 0,
    eStatusRefused = 1,  ///< the device set the error bit
    eStatusUsage = 2,    ///< the command was not understood; nothing was sent
    eStatusNoAnswer = 3, ///< no usable answer, interrupted, or nobody knows what became of the request, or no line
};

class Session;

/// A command as typed at the prompt and in boot files.
struct tCommand
{
    const char* name;
    const char* usage; ///< what follows the name
    const char* meaning;
    std::size_t minWords; ///< after the name
    std::size_t maxWords;
    int (Session::*run)(std::vector<std::string>& words);
};

struct tSessionOptions
{
    bool json = false;
    bool quiet = false; ///< only values and errors
    /// Called before each request, when its words were understood; makes the line ready. May throw LineError.
    std::function<void()> connect = {};
};

/// The commands of vorlan-qv on one link, for the command line, the prompt and boot files. Results go to `out`, what
/// went wrong and what to try to `err`. The operations give a StatusE and throw RequestError and ValueError.
class Session
{
public:
    Session(Peer& peer, std::ostream& out, std::ostream& err, const tSessionOptions& options = {});
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    int read(std::span<const std::string> names);
    int write(const std::string& name, const std::string& value);
    int call(const std::string& name, std::span<const std::string> args);
    /// Runs the commands of a file one after another, as run() does, up to the first that does not succeed. When one of
    /// them is not understood, none is run.
    int boot(const std::string& fileName);
    /// Reads again and again and shows the first value and each change, `count` readings or until stop() (count 0).
    int watch(const std::string& name, std::chrono::milliseconds every, unsigned count);
    /// Harmless reads one after another, and what they took.
    int ping(unsigned count);

    static std::span<const tCommand> commands();
    /// One command in words, as typed at the prompt: "read", "brightness-raw". Mistakes are reported to `err`.
    int run(std::span<const std::string> words);
    /// Splits a line into words (see splitWords) and runs it. An empty line is done.
    int runLine(const std::string& line);

    /// Ends what is under way, and everything from now on until forgetStop(): a watch or ping as if it were done, all
    /// else as a failure. May be called from a signal handler.
    void stop() { mStop = true; }
    bool stopped() const { return mStop; }
    const std::atomic<bool>& stopFlag() const { return mStop; }
    void forgetStop() { mStop = false; }
    /// Frames on `err` from now on, or no longer.
    void setTrace(bool on);

    Peer& peer() { return mPeer; }
    std::ostream& out() { return mOut; }
    std::ostream& err() { return mErr; }

private:
    using Words = std::vector<std::string>;

    int readWords(Words& words);
    int writeWords(Words& words);
    int callWords(Words& words);
    int networkWords(Words& words);
    int bootWords(Words& words);
    int watchWords(Words& words);
    int pingWords(Words& words);
    int listWords(Words& words);
    int traceWords(Words& words);

    /// As Peer::request; a reply that is no value of the register read is no success.
    tResult ask(const tRequest& request);
    int finish(const tRequest& request);
    /// Tells of words that were not understood; gives the status.
    int misunderstood(const std::string& words, const std::string& what);
    int playLines(const std::string& fileName, std::span<const std::string> lines);
    void showReading(const tRequest& request, ByteView data, std::size_t width);
    /// Tells of a request that did not succeed; gives its status.
    int report(const tRequest& request, const tResult& result);
    void pauseUntil(Clock::time_point when) const;

    Peer& mPeer;
    std::ostream& mOut;
    std::ostream& mErr;
    tSessionOptions mOptions;
    std::atomic<bool> mStop{false};
    bool mInBoot = false;
    bool mChecking = false; ///< a boot file is looked over: commands are understood and not carried out
    std::string mWhere;     ///< "FILE:LINE: " in a boot file
};

} // namespace qv
