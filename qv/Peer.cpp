#include "qv/Peer.h"

#include "protocol/Wire.h"

#include <algorithm>

namespace qv {

namespace {

using namespace std::chrono_literals;

constexpr unsigned kBitsPerByte = 10;   ///< on the line: start bit, 8 data bits, stop bit
constexpr std::size_t kReplyGuess = 64; ///< bytes of a reply whose length is not known
constexpr std::size_t kReplyMax = 4096; ///< bytes for which the end of a frame is waited for
constexpr std::size_t kSettleBytes = 7; ///< the daemon reads this much later than the first byte comes
constexpr auto kByteGap = 20ms;         ///< a frame that stops for longer is not going on
constexpr auto kStopStep = 20ms;        ///< how soon a stop is noticed
constexpr unsigned kResetsByNoise = 1;  ///< that a fresh daemon may send beside those that our sendings bring about
constexpr int kQuietTries = 10;         ///< so many quiet times are waited for one
constexpr std::uint8_t kSyncStride = 7; ///< from one frame that gets in step to the next; model/link.pml proves it
constexpr std::uint8_t kSyncMessage[] = {wire::eCmdReadReg, wire::eRegRdConst0};
constexpr std::uint8_t kSyncReply[] = {wire::eCmdReadReg, 0};

bool isRead(ByteView message)
{
    return (message[0] & wire::kCommandMask) == wire::eCmdReadReg;
}

} // namespace

tPeerCounts tPeerCounts::operator-(const tPeerCounts& earlier) const
{
    return {sent - earlier.sent,   repeats - earlier.repeats, received - earlier.received, broken - earlier.broken,
            stale - earlier.stale, resets - earlier.resets,   echoes - earlier.echoes,     timeouts - earlier.timeouts,
            syncs - earlier.syncs, bytes - earlier.bytes};
}

Peer::Peer(Line& line, const tPeerOptions& options)
    : mLine(line)
    , mOptions(options)
    , mNumber(static_cast<std::uint8_t>(options.firstNumber - kSyncStride) & kNumberMask)
{}

tResult Peer::request(ByteView message)
{
    return request(message, !message.empty() && (message[0] & wire::kCommandMask) != wire::eCmdCall);
}

tResult Peer::request(ByteView message, bool safeToRepeat)
{
    if (message.size() < 2) {
        throw std::invalid_argument("a request has at least two bytes");
    }
    const auto before = mCounts;
    mBeforeExchange = mCounts;
    mMayBeDone = false;
    tResult result;
    try {
        requestInStep(message, safeToRepeat, result);
    } catch (const LineError& error) {
        mInStep = false;
        result.outcome = OutcomeE::eLineGone;
        result.fault = error.what();
    }
    result.mayBeDone = mMayBeDone && !isRead(message);
    result.counts = mCounts - before;
    result.last = mCounts - mBeforeExchange;
    return result;
}

void Peer::requestInStep(ByteView message, bool safeToRepeat, tResult& result)
{
    for (unsigned round = 0; round < mOptions.tries; ++round) {
        readLeftovers();
        if (!mInStep && !sync()) {
            result.outcome = stopped() ? OutcomeE::eStopped : OutcomeE::eNoAnswer;
            return;
        }
        result.wasInStep = true;
        const bool mightBeDone = mMayBeDone;
        const auto last = exchange(message, false);
        if (last.end == EndE::eReply) {
            mNumber = last.frame.number();
            const bool refused = (last.frame.payload[0] & wire::kErrorBit) != 0;
            result.outcome = refused ? OutcomeE::eRefused : OutcomeE::eDone;
            mMayBeDone = false;
            result.data.assign(last.frame.payload.begin() + 1, last.frame.payload.end());
            result.roundTrip = last.roundTrip;
            if (refused && last.sends > 1) {
                continue;
            }
            return;
        }
        mInStep = mInStep && last.sends == 0;
        result.outcome = last.end == EndE::eStopped ? OutcomeE::eStopped : OutcomeE::eNoAnswer;
        if (last.end != EndE::eReset) {
            return;
        }
        const bool notDone = provesNotDone(last);
        if (!notDone && !safeToRepeat) {
            sync();
            result.outcome = OutcomeE::eUnknown;
            return;
        }
        mMayBeDone = mightBeDone || !notDone;
    }
}

/// A fresh daemon numbers its reset frames from 1, so a reset that it could have sent in answer to our sendings and to
/// a little noise proves nothing: the request may have been carried out before it was started anew.
bool Peer::provesNotDone(const tExchange& last) const
{
    const auto number = last.frame.number();
    const unsigned resetsOfFreshDaemon = number == 0 ? kNumberMask + 1U : number;
    return number == nextNumber(mNumber) && resetsOfFreshDaemon > last.sends + kResetsByNoise;
}

bool Peer::sync()
{
    mInStep = false;
    if (mFresh) {
        readLeftovers(frameTime());
        if (!getInStep()) {
            return false;
        }
        mFresh = false;
    }
    mInStep = getInStep();
    mCounts.syncs += mInStep ? 1 : 0;
    return mInStep;
}

bool Peer::getInStep()
{
    const auto last = exchange(kSyncMessage, true);
    if (last.end != EndE::eReply) {
        return false;
    }
    mNumber = last.frame.number();
    return true;
}

Peer::tExchange Peer::exchange(ByteView message, bool syncing)
{
    mBeforeExchange = mCounts;
    tExchange result;
    while (result.sends < mOptions.tries) {
        if (stopped()) {
            result.end = EndE::eStopped;
            break;
        }
        if (syncing) {
            mNumber = static_cast<std::uint8_t>(mNumber + kSyncStride) & kNumberMask;
        }
        const auto header = static_cast<std::uint8_t>(mNumber | (syncing ? kResetFlag : 0U));
        const auto wire = toWire(buildFrame(header, message));
        mSends = ++result.sends;
        const auto kind = syncing ? TraceE::eSync : mSends > 1 ? TraceE::eRepeat : TraceE::eRequest;
        ++mCounts.sent;
        mCounts.repeats += kind == TraceE::eRepeat ? 1 : 0;
        trace(kind, true, wire, parseWire(ByteView(wire).first(wire.size() - 1)), mSends);
        const auto start = Clock::now();
        mLine.write(wire);
        mMayBeDone = mMayBeDone || !syncing;
        const auto deadline = start + mOptions.timeout + lineTime(wire.size() + kSettleBytes + kReplyGuess);
        if (const auto end = awaitAnswer(header, message, deadline, result)) {
            result.end = *end;
            result.roundTrip = Clock::now() - start;
            if (result.end == EndE::eReply) {
                noteRoundTrip(result.roundTrip);
            }
            break;
        }
    }
    return result;
}

std::optional<Peer::EndE> Peer::awaitAnswer(std::uint8_t header, ByteView message, Clock::time_point deadline,
                                            tExchange& result)
{
    const auto lastMoment = longestAfter(deadline); // a line that is never silent does not hold us for ever
    bool more = true;
    while (auto received = more ? receive(deadline) : std::nullopt) {
        const auto kind = classify(received->frame, header, message);
        trace(kind, false, received->wire, received->frame, mSends);
        mCounts.broken += kind == TraceE::eBroken ? 1 : 0;
        mCounts.stale += kind == TraceE::eStale ? 1 : 0;
        mCounts.resets += kind == TraceE::eReset ? 1 : 0;
        mCounts.echoes += kind == TraceE::eEcho ? 1 : 0;
        if (kind == TraceE::eReply || kind == TraceE::eRefusal) {
            result.frame = std::move(received->frame);
            return EndE::eReply;
        }
        if (kind == TraceE::eReset && (header & kResetFlag) == 0) {
            result.frame = std::move(received->frame);
            return EndE::eReset;
        }
        if (kind != TraceE::eEcho) {
            deadline = std::min<Clock::time_point>(deadline, Clock::now() + grace());
        }
        more = Clock::now() < lastMoment;
    }
    if (stopped()) {
        return EndE::eStopped;
    }
    ++mCounts.timeouts;
    trace(TraceE::eTimeout, false, {}, {}, mSends);
    return std::nullopt;
}

TraceE Peer::classify(const tParsedFrame& frame, std::uint8_t header, ByteView message) const
{
    if (!frame.ok()) {
        return TraceE::eBroken;
    }
    if (frame.isResetFrame()) {
        return TraceE::eReset;
    }
    if (frame.header == header && std::ranges::equal(frame.payload, message)) {
        return TraceE::eEcho;
    }
    const auto status = frame.payload[0];
    if (frame.number() != nextNumber(header & kNumberMask) ||
        (status & ~wire::kErrorBit) != (message[0] & wire::kCommandMask)) {
        return TraceE::eStale;
    }
    if ((header & kResetFlag) != 0 && !std::ranges::equal(frame.payload, kSyncReply)) {
        return TraceE::eStale;
    }
    return (status & wire::kErrorBit) != 0 ? TraceE::eRefusal : TraceE::eReply;
}

std::optional<Peer::tReceived> Peer::receive(Clock::time_point deadline)
{
    const auto lastMoment = longestAfter(deadline);
    for (;;) {
        if (auto wire = mCutter.next()) {
            ++mCounts.received;
            auto frame = parseWire(*wire);
            wire->push_back(kDelimiter);
            return tReceived{std::move(*wire), std::move(frame)};
        }
        const auto bytes = readLine(deadline);
        if (bytes.empty()) {
            if (mCutter.pending() != 0 && !stopped()) {
                trace(TraceE::eNoFrame, false, mCutter.dropPending(), {}, mSends);
            }
            return std::nullopt;
        }
        mCounts.bytes += static_cast<unsigned>(bytes.size());
        mCutter.feed(bytes);
        if (mCutter.pending() != 0) { // a frame is coming in: its end may come after the deadline
            deadline = std::min(std::max<Clock::time_point>(deadline, Clock::now() + frameTime()), lastMoment);
        }
    }
}

Bytes Peer::readLine(Clock::time_point deadline)
{
    for (;;) {
        const auto step = mStop == nullptr ? deadline : std::min<Clock::time_point>(deadline, Clock::now() + kStopStep);
        auto bytes = stopped() ? Bytes() : mLine.read(step);
        if (!bytes.empty() || step == deadline || stopped()) {
            return bytes;
        }
    }
}

void Peer::readLeftovers(std::chrono::nanoseconds quiet)
{
    const auto end = Clock::now() + kQuietTries * frameTime();
    while (auto received = receive(Clock::now() + quiet)) {
        const bool reset = received->frame.isResetFrame();
        mCounts.resets += reset ? 1 : 0;
        const auto kind = reset ? TraceE::eReset : received->frame.ok() ? TraceE::eStale : TraceE::eBroken;
        mCounts.stale += kind == TraceE::eStale ? 1 : 0;
        mCounts.broken += kind == TraceE::eBroken ? 1 : 0;
        trace(kind, false, received->wire, received->frame, 0);
        mInStep = mInStep && !reset;
        if (Clock::now() > end) {
            return;
        }
    }
}

std::chrono::nanoseconds Peer::lineTime(std::size_t bytes) const
{
    if (mOptions.baud == 0) {
        return 0ns;
    }
    return std::chrono::nanoseconds(1s) * kBitsPerByte * static_cast<std::int64_t>(bytes) / mOptions.baud;
}

std::chrono::nanoseconds Peer::frameTime() const
{
    return kByteGap + lineTime(kReplyGuess);
}

Clock::time_point Peer::longestAfter(Clock::time_point deadline) const
{
    return deadline + lineTime(kReplyMax) + kByteGap;
}

/// How long the real reply may be behind a stale or broken frame: a few usual round trips.
std::chrono::nanoseconds Peer::grace() const
{
    const std::chrono::nanoseconds timeout = mOptions.timeout;
    return mRoundTrip == 0ns ? timeout / 4 : std::min<std::chrono::nanoseconds>(timeout, 1ms + 3 * mRoundTrip);
}

void Peer::noteRoundTrip(std::chrono::nanoseconds time)
{
    mRoundTrip = mRoundTrip == 0ns ? time : (7 * mRoundTrip + time) / 8;
}

void Peer::trace(TraceE kind, bool sent, ByteView wire, const tParsedFrame& frame, unsigned attempt)
{
    if (mTrace) {
        mTrace({kind, sent, Bytes(wire.begin(), wire.end()), frame, attempt});
    }
}

void Peer::sendRaw(ByteView bytes)
{
    trace(TraceE::eRaw, true, bytes, {}, 0);
    mLine.write(bytes);
}

void Peer::sendFrame(std::uint8_t header, ByteView payload, std::uint16_t crcXor)
{
    auto frame = buildFrame(header, payload);
    frame[frame.size() - 2] ^= static_cast<std::uint8_t>(crcXor >> 8);
    frame[frame.size() - 1] ^= static_cast<std::uint8_t>(crcXor & 0xFF);
    const auto wire = toWire(frame);
    trace(TraceE::eRaw, true, wire, parseWire(ByteView(wire).first(wire.size() - 1)), 0);
    mLine.write(wire);
}

std::optional<tParsedFrame> Peer::receiveFrame(Clock::time_point deadline)
{
    auto received = receive(deadline);
    if (!received) {
        return std::nullopt;
    }
    trace(TraceE::eRaw, false, received->wire, received->frame, 0);
    return std::move(received->frame);
}

} // namespace qv
