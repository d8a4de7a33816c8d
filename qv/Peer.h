#pragma once

#include "qv/Frame.h"
#include "qv/Line.h"

#include <atomic>
#include <functional>

namespace qv {

enum class OutcomeE : std::uint8_t
{
    eDone,     ///< answered, error bit clear
    eRefused,  ///< answered with the error bit: nothing was carried out
    eNoAnswer, ///< nothing usable came back
    eUnknown,  ///< the daemon asked for a new start meanwhile: carried out or not, nobody can say
    eStopped,  ///< given up at the caller's wish, see setStop()
    eLineGone, ///< the line failed meanwhile, as `fault` says
    eBadReply, ///< answered, but not with a value of the register; never from a Peer, which knows no registers
};

/// Counted since the peer exists, or during one request.
struct tPeerCounts
{
    unsigned sent = 0;     ///< frames, repeats included
    unsigned repeats = 0;  ///< frames sent again with the same number
    unsigned received = 0; ///< frames, broken ones included
    unsigned broken = 0;   ///< received with a bad length, byte stuffing or CRC
    unsigned stale = 0;    ///< earlier replies that came again
    unsigned resets = 0;   ///< reset frames of the daemon
    unsigned echoes = 0;   ///< our own frames that came back
    unsigned timeouts = 0; ///< waits that ended without a frame
    unsigned syncs = 0;    ///< times that we got in step; a fresh peer's first, with two frames, is one
    unsigned bytes = 0;    ///< received, of whatever kind

    tPeerCounts operator-(const tPeerCounts& earlier) const;
};

struct tResult
{
    OutcomeE outcome = OutcomeE::eNoAnswer;
    Bytes data; ///< what followed the status byte of the reply
    /// Without an answer: the request may have been carried out all the same (always false for register reads).
    bool mayBeDone = false;
    std::string fault; ///< what became of the line
    /// We were in step when the request was sent: the line and the daemon worked until then.
    bool wasInStep = false;
    std::chrono::nanoseconds roundTrip{0}; ///< from the last sending to the reply
    tPeerCounts counts;                    ///< of this request, getting in step included
    tPeerCounts last;                      ///< of the last frame that was sent, and its repeats

    bool done() const { return outcome == OutcomeE::eDone; }
};

enum class TraceE : std::uint8_t
{
    eRequest, ///< sent for the first time
    eRepeat,  ///< sent again with the same number
    eSync,    ///< sent with the reset flag to get in step, each with a number of its own
    eRaw,     ///< sent as given by the caller, or received outside of a request
    eReply,   ///< the awaited reply
    eRefusal, ///< the awaited reply, with the error bit
    eReset,   ///< the daemon's reset frame
    eStale,   ///< an earlier reply
    eEcho,    ///< what we sent, received
    eBroken,  ///< not a valid frame
    eNoFrame, ///< bytes whose delimiter did not come in time; only they are known
    eTimeout, ///< nothing (more) came; no frame
};

struct tTraceEvent
{
    TraceE kind;
    bool sent;          ///< else received
    Bytes wire;         ///< with its delimiter
    tParsedFrame frame; ///< what is in it
    unsigned attempt;   ///< 1 for the first sending of this request, or for the first to get in step
};

struct tPeerOptions
{
    std::chrono::milliseconds timeout{500}; ///< for one reply, the time on the line not counted
    unsigned tries = 5;                     ///< sendings of one frame at most
    unsigned baud = 0;                      ///< to reckon the time on the line; 0: none
    std::uint8_t firstNumber = 0;           ///< of the first frame that gets in step
};

/// QV's end of the link: one request at a time, each carried out once.
///
/// How the daemon counts: the reply to request n has number n + 1, and the next request must have that number again.
/// The daemon answers a request with the number before by sending its last reply again, a broken frame too (or a reset
/// frame if it has none), anything else that does not fit by a reset frame; after that it takes only a frame with the
/// reset flag. It delivers every frame with the reset flag, so only the harmless read of register 0 is ever sent so.
///
/// So a request is repeated with its number until the reply with the next number comes. Replies with other numbers and
/// broken frames only shorten the wait, for the real reply may be right behind them. A delimiter is never sent by
/// itself: the daemon takes it for an empty frame and falls out of step; bytes that a lost delimiter left in the
/// daemon spoil one repeat, and its delimiter removes them.
///
/// Each frame that gets in step has a new number, and only the reply to the last one counts. So once we are in step no
/// earlier one is on its way any more, which would bring the daemon back in step behind our back and make it carry out
/// a request that we hold for dead. A fresh peer does not know which numbers its former life used, whose stored reply
/// may come again: it waits until the line is quiet and gets in step twice. model/link.pml proves these rules.
///
/// A reset frame carries the daemon's number plus one. If that is one more than ours, the request was not carried out
/// and is safe to send again after getting in step, unless the number is so low that a daemon started anew may have
/// come to it. Otherwise its reply may have been lost before, and the outcome of a
/// request that must not run twice is eUnknown. Without any answer the peer gets in step again before the next request,
/// since the next number would not be certain.
///
/// Two of our frames that the daemon reads at once look to it like the first with a byte more, which makes it refuse a
/// request of fixed length. A refusal after a repeat is therefore not believed: the request, which had no effect, is
/// made again with the next number.
///
/// When the line is gone, a request ends as eLineGone; everything else throws LineError. Used by one thread.
class Peer
{
public:
    using TraceFn = std::function<void(const tTraceEvent&)>;

    explicit Peer(Line& line, const tPeerOptions& options = {});

    /// Sends a request message (command byte first, at least two bytes) and waits for its outcome; gets in step first
    /// when needed. `safeToRepeat`: carrying it out twice does no harm, so it is made again when a reset leaves open
    /// whether it was carried out. Throws std::invalid_argument for messages shorter than two bytes: the daemon takes
    /// them for broken frames.
    tResult request(ByteView message, bool safeToRepeat);

    /// As above; register reads and writes are safe to repeat (the daemon ignores a write of what it already has),
    /// method calls are not.
    tResult request(ByteView message);

    /// Gets in step by a harmless read with the reset flag, the first time by two. False when there is no answer.
    bool sync();
    bool inStep() const { return mInStep; }
    /// Forces a sync before the next request.
    void forgetStep() { mInStep = false; }
    /// The number of the next request.
    std::uint8_t number() const { return mNumber; }

    const tPeerCounts& counts() const { return mCounts; }
    const tPeerOptions& options() const { return mOptions; }
    void setTimeout(std::chrono::milliseconds timeout) { mOptions.timeout = timeout; }
    /// While the flag is set, requests end at once as eStopped, the one under way too, and nothing is sent; null: they
    /// never do. The flag may be set by a signal handler.
    void setStop(const std::atomic<bool>* stop) { mStop = stop; }
    /// Called on each frame sent and received, and when a wait ended without one.
    void setTrace(TraceFn trace) { mTrace = std::move(trace); }

    /// For tests: bytes as they are; a frame with any header, its CRC changed by `crcXor`; the next frame of any kind.
    /// None of these changes what the peer believes of the daemon's numbers.
    void sendRaw(ByteView bytes);
    void sendFrame(std::uint8_t header, ByteView payload, std::uint16_t crcXor = 0);
    std::optional<tParsedFrame> receiveFrame(Clock::time_point deadline);

private:
    enum class EndE : std::uint8_t
    {
        eReply,
        eReset,
        eNothing,
        eStopped
    };
    struct tExchange
    {
        EndE end = EndE::eNothing;
        tParsedFrame frame;
        unsigned sends = 0;
        std::chrono::nanoseconds roundTrip{0};
    };
    struct tReceived
    {
        Bytes wire;
        tParsedFrame frame;
    };

    void requestInStep(ByteView message, bool safeToRepeat, tResult& result);
    /// One harmless read with the reset flag, sent until the reply to the last sending comes.
    bool getInStep();
    /// Sends until the reply comes, the daemon resets (not when syncing), the tries are used up or a stop is wished.
    /// A request is repeated with its number, a frame that gets in step has a new one each time.
    tExchange exchange(ByteView message, bool syncing);
    /// Waits for the end of one sending; nothing when it has to be repeated.
    std::optional<EndE> awaitAnswer(std::uint8_t header, ByteView message, Clock::time_point deadline,
                                    tExchange& result);
    TraceE classify(const tParsedFrame& frame, std::uint8_t header, ByteView message) const;
    std::optional<tReceived> receive(Clock::time_point deadline);
    /// What arrives until the deadline; nothing, and soon, when a stop is wished.
    Bytes readLine(Clock::time_point deadline);
    bool stopped() const { return mStop != nullptr && *mStop; }
    /// Looks at what came while no request was under way, until nothing more has come for `quiet` (not for ever: a line
    /// may never be quiet); a reset frame among it puts us out of step.
    void readLeftovers(std::chrono::nanoseconds quiet = {});
    bool provesNotDone(const tExchange& last) const;
    std::chrono::nanoseconds lineTime(std::size_t bytes) const;
    std::chrono::nanoseconds frameTime() const;                       ///< for the rest of a reply, generously
    Clock::time_point longestAfter(Clock::time_point deadline) const; ///< when the frame that began by then has ended
    std::chrono::nanoseconds grace() const;
    void noteRoundTrip(std::chrono::nanoseconds time);
    void trace(TraceE kind, bool sent, ByteView wire, const tParsedFrame& frame, unsigned attempt);

    Line& mLine;
    tPeerOptions mOptions;
    TraceFn mTrace;
    const std::atomic<bool>* mStop = nullptr;
    FrameCutter mCutter;
    tPeerCounts mCounts;
    bool mFresh = true; ///< never in step yet
    bool mInStep = false;
    std::uint8_t mNumber; ///< of the next request; out of step: of the last frame that we know of
    tPeerCounts mBeforeExchange;
    unsigned mSends = 0;                    ///< of the exchange under way
    bool mMayBeDone = false;                ///< the request was sent, and nothing proves yet what became of it
    std::chrono::nanoseconds mRoundTrip{0}; ///< smoothed; 0: none yet
};

} // namespace qv
