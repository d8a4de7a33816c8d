#include "tests/qv/BadLineRun.h"

#include "qv/Crc.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>

namespace bad_line {

namespace {

using namespace std::chrono_literals;
using qv::Bytes;
using qv::ByteView;
using qv::OutcomeE;

constexpr const char* kKey = "Startmode";
constexpr std::uint32_t kParam = 180; ///< what wire::eRegRdParamWordA reads
constexpr unsigned kMendEvery = 12;   ///< repeats: one in so many finds the line good again
constexpr unsigned kBurst = 4;
constexpr auto kTimeout = 5ms;
constexpr auto kGoodTimeout = 200ms; ///< a good line always answers; what is measured are frames, not a busy machine

[[gnu::format(printf, 1, 2)]] std::string format(const char* text, ...)
{
    char line[400];
    std::va_list values;
    va_start(values, text);
    std::vsnprintf(line, sizeof line, text, values);
    va_end(values);
    return line;
}

/// Passes everything on and shows it.
class Tap : public qv::Line
{
public:
    using SeenFn = std::function<void(ByteView)>;

    Tap(qv::Line& line, SeenFn written, SeenFn read)
        : mLine(line)
        , mWritten(std::move(written))
        , mRead(std::move(read))
    {}
    void write(ByteView bytes) override
    {
        mWritten(bytes);
        mLine.write(bytes);
    }
    Bytes read(qv::Clock::time_point deadline) override
    {
        auto bytes = mLine.read(deadline);
        mRead(bytes);
        return bytes;
    }

private:
    qv::Line& mLine;
    SeenFn mWritten;
    SeenFn mRead;
};

/// Changes the last byte of some messages and makes the CRC fit: what a spoilt frame that passes it would look like.
class Forger : public qv::Line
{
public:
    Forger(qv::Line& line, unsigned oneIn, std::uint64_t seed)
        : mLine(line)
        , mOneIn(oneIn)
        , mRandom(seed)
    {}
    void write(ByteView bytes) override { mLine.write(forged(bytes, mOut)); }
    Bytes read(qv::Clock::time_point deadline) override { return forged(mLine.read(deadline), mIn); }
    unsigned out() const { return mOut; }
    unsigned in() const { return mIn; }

private:
    Bytes forged(ByteView wire, unsigned& count)
    {
        if (mOneIn != 0 && !wire.empty() && mRandom() % mOneIn == 0) {
            auto frame = qv::parseWire(wire.first(wire.size() - 1));
            if (frame.ok()) {
                ++count;
                frame.payload.back() ^= 0x55;
                return qv::toWire(qv::buildFrame(frame.header, frame.payload));
            }
        }
        return {wire.begin(), wire.end()};
    }

    qv::Line& mLine;
    unsigned mOneIn;
    std::mt19937_64 mRandom;
    unsigned mOut = 0;
    unsigned mIn = 0;
};

/// Finds spoilt frames that pass the CRC: knows what either end really sent, and sees what reached the other one.
class EscapeFinder
{
public:
    void qvSends(ByteView wire) { remember(mRequests, qv::parseWire(wire.first(wire.size() - 1)).bytes); }
    void daemonSends(ByteView bytes)
    {
        mCutter.feed(bytes);
        while (const auto wire = mCutter.next())
            remember(mReplies, qv::parseWire(*wire).bytes);
    }
    /// The daemon reads from one delimiter to the next; when a code byte was spoilt and several frames wait together,
    /// it may read on into those behind.
    bool daemonGets(ByteView bytes)
    {
        bool escaped = false;
        for (const auto byte : bytes) {
            if (byte == qv::kDelimiter) {
                // one that escaped is over: with what follows it, it would be found again
                escaped = std::erase_if(mStarts,
                                        [&](auto start) { return escapesIn(ByteView(mStream).subspan(start)); }) > 0 ||
                          escaped;
                mStarts.push_back(mStream.size() + 1);
            }
            mStream.push_back(byte);
        }
        forget();
        return escaped;
    }
    /// A frame that QV takes for a good one.
    bool qvGets(const qv::tParsedFrame& frame) const { return std::ranges::count(mReplies, frame.bytes) == 0; }

private:
    static constexpr std::size_t kRemembered = 512;
    static constexpr std::size_t kFramesTogether = 4;

    static void remember(std::deque<Bytes>& frames, Bytes frame)
    {
        frames.push_back(std::move(frame));
        if (frames.size() > kRemembered)
            frames.pop_front();
    }
    /// As the daemon decodes: a group that is cut short gives what is there, a zero code byte ends the frame.
    static Bytes decode(ByteView wire)
    {
        Bytes out;
        bool zeroDue = false;
        for (std::size_t at = 0; at < wire.size();) {
            const std::size_t code = wire[at++];
            if (zeroDue)
                out.push_back(0);
            if (code == 0)
                break;
            const auto group = wire.subspan(at, std::min(code - 1, wire.size() - at));
            out.insert(out.end(), group.begin(), group.end());
            at += group.size();
            zeroDue = code < 0xFF;
        }
        return out;
    }
    bool escapesIn(ByteView wire) const
    {
        const auto frame = decode(wire);
        if (frame.size() < 5)
            return false;
        const auto crc = qv::crc16(ByteView(frame).first(frame.size() - 2));
        if (frame[frame.size() - 2] != crc >> 8 || frame.back() != (crc & 0xFF))
            return false;
        return std::ranges::none_of(mRequests, [&](const Bytes& request) {
            return frame.size() >= request.size() &&
                   std::ranges::equal(ByteView(frame).first(request.size()), request) &&
                   std::ranges::all_of(ByteView(frame).subspan(request.size()), [](auto byte) { return byte == 0; });
        });
    }
    void forget()
    {
        while (mStarts.size() > kFramesTogether)
            mStarts.pop_front();
        const auto gone = mStarts.front();
        if (gone < 4096)
            return;
        mStream.erase(mStream.begin(), mStream.begin() + static_cast<std::ptrdiff_t>(gone));
        for (auto& start : mStarts)
            start -= gone;
    }

    std::deque<Bytes> mRequests;
    std::deque<Bytes> mReplies;
    qv::FrameCutter mCutter;
    Bytes mStream;
    std::deque<std::size_t> mStarts{0};
};

class Run
{
public:
    Run(rig::Rig& rig, const tCase& what)
        : mRig(rig)
        , mCase(what)
        , mBelow(
              mRig.port(), [this](ByteView bytes) { noteEscape(mFinder.daemonGets(bytes), mFigures.escapesOut); },
              [this](ByteView bytes) { mFinder.daemonSends(bytes); })
        , mForger(mBelow, what.forgeOneIn, what.seed)
        , mLine(mForger, optionsOf(what))
        , mAbove(
              mLine, [this](ByteView bytes) { mFinder.qvSends(bytes); }, [](ByteView) {})
        , mPeer(mAbove, {.timeout = kTimeout, .tries = 5000, .firstNumber = 9})
    {
        mPeer.setTrace([this](const qv::tTraceEvent& event) { traced(event); });
        mRig.timeline().listen([this](const sim::tEvent& event, bool later) { happened(event, later); });
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    ~Run() { mRig.timeline().listen({}); }

    tFigures requests()
    {
        for (mNow = 0; mNow < mCase.requests; ++mNow) {
            if (mNow % 2 == 0)
                set(mNow);
            else
                read(mNow);
            if (mGood && mPeer.inStep())
                spoil();
            if (mNow % 100 == 0)
                mRig.timeline().clear();
        }
        // An outcome that was unknown is looked up, as QV's user would, and the request made if it was not carried out.
        mOver = true;
        mLine.setOptions({});
        mPeer.setTimeout(kGoodTimeout);
        for (const auto request : mUnknown)
            while (effectsOf(request) == 0 && mPeer.sync())
                mPeer.request(message(request));
        mFigures.sent = mLine.sentCounts();
        mFigures.received = mLine.receivedCounts();
        judge();
        mFigures.peer = mPeer.counts();
        mFigures.forgedOut = mForger.out();
        mFigures.forgedIn = mForger.in();
        mFigures.unknown = static_cast<unsigned>(mUnknown.size());
        return mFigures;
    }

private:
    static Bytes message(unsigned request)
    {
        auto arguments = rig::text(kKey);
        for (unsigned shift = 0; shift < 32; shift += 8)
            arguments.push_back(static_cast<std::uint8_t>(request >> shift));
        return rig::call(wire::eMethodSetCfgLong, arguments);
    }

    void set(unsigned request)
    {
        mSet.push_back(request);
        const auto result = mPeer.request(message(request));
        if (result.outcome == OutcomeE::eUnknown)
            mUnknown.push_back(request);
        else if (result.outcome != OutcomeE::eDone || !result.data.empty())
            wrong(request, result);
    }

    void read(unsigned request)
    {
        mRig.device().sysd().setParam(kParam, static_cast<std::int32_t>(request));
        const auto result = mPeer.request(rig::readReg(wire::eRegRdParamWordA));
        const Bytes right{static_cast<std::uint8_t>(request), static_cast<std::uint8_t>(request >> 8)};
        if (result.outcome != OutcomeE::eDone || result.data != right)
            wrong(request, result);
    }

    /// In the middle of a request, so that whatever is half done shows. The frame about to be sent is the first.
    void mend()
    {
        mGood = true;
        mGoodSince = mPeer.counts().sent - 1;
        mLine.setOptions({});
        mPeer.setTimeout(kGoodTimeout);
    }
    /// Counts the frames that it took to be back in step, and makes the line bad again.
    void spoil()
    {
        const unsigned frames = mPeer.counts().sent - mGoodSince;
        mFigures.framesToStep = std::max(mFigures.framesToStep, frames);
        ++mFigures.mended;
        if (frames > kMaxFramesToStep)
            violation(format("request %u: %u frames until back in step", mNow, frames));
        mGood = false;
        mPeer.setTimeout(kTimeout);
        mLine.setOptions(optionsOf(mCase));
    }

    void wrong(unsigned request, const qv::tResult& result)
    {
        if (excused(request))
            return;
        ++mFigures.wrongAnswers;
        violation(format("request %u: outcome %u, data ", request, static_cast<unsigned>(result.outcome)) +
                  rig::hex(result.data));
    }

    void judge()
    {
        const std::lock_guard lock(mMutex);
        mFigures.effectsExpected = static_cast<unsigned>(mSet.size());
        unsigned planned = 0;
        for (const auto request : mSet) {
            const auto seen = mEffects[effectOf(request)];
            planned += seen;
            if (seen != 1 && !excused(request))
                violation(format("request %u took effect %u times", request, seen));
        }
        for (const auto& effect : mEffects)
            mFigures.effectsSeen += effect.second;
        const auto unplanned = mFigures.effectsSeen - planned;
        if (unplanned > mFigures.escapesOut)
            violation(format("%u effects that nobody asked for", unplanned));
        mFigures.byEscapes += unplanned;
        if (mReads > mReadsAsked + mFigures.escapesOut)
            violation(format("%u reads were asked for, %u carried out", mReadsAsked, mReads));
        // far more than one in 65 536 would be a fault of this judge
        const unsigned escapes = mFigures.escapesOut + mFigures.escapesIn;
        const unsigned garbled = mFigures.sent.corrupted + mFigures.received.corrupted;
        if (mCase.forgeOneIn == 0 && escapes > 3 + garbled / 1000)
            violation(format("%u of %u garbled frames pass the CRC", escapes, garbled));
    }

    /// A spoilt frame that passed the CRC accounts for what goes wrong with the requests around it.
    bool excused(unsigned request)
    {
        const bool yes = std::ranges::any_of(
            mEscapes, [&](unsigned escape) { return request + 2 >= escape && request <= escape + 2; });
        mFigures.byEscapes += yes ? 1 : 0;
        return yes;
    }
    void noteEscape(bool escaped, unsigned& count)
    {
        if (escaped) {
            ++count;
            mEscapes.push_back(mNow);
        }
    }
    void violation(std::string text)
    {
        constexpr std::size_t kEnough = 20;
        if (mFigures.violations.size() < kEnough)
            mFigures.violations.push_back(std::move(text));
    }

    void traced(const qv::tTraceEvent& event)
    {
        if (event.sent) {
            mReadsAsked += event.kind == qv::TraceE::eRequest && event.frame.payload[0] == wire::eCmdReadReg ? 1U : 0U;
            if (event.attempt > 1 && !mGood && !mOver && mRandom() % kMendEvery == 0)
                mend();
            if (mGood && mPeer.counts().sent - mGoodSince > kMaxFramesToStep / 2)
                mPeer.setTimeout(sim::kDeadline); // so many without an answer: the machine stands still
        } else if (!event.frame.bytes.empty() && event.frame.ok()) {
            noteEscape(mFinder.qvGets(event.frame), mFigures.escapesIn);
        }
    }

    /// On the stand-ins' thread.
    void happened(const sim::tEvent& event, bool later)
    {
        if (later || event.kind != sim::KindE::eCall)
            return;
        const std::lock_guard lock(mMutex);
        if (event.member == "SetCfgInt")
            ++mEffects[event.arguments];
        else if (event.member == "GetParamInt" && event.arguments == std::to_string(kParam))
            ++mReads;
    }
    static std::string effectOf(unsigned request)
    {
        return "\"" + std::string(kKey) + "\", " + std::to_string(request);
    }
    unsigned effectsOf(unsigned request)
    {
        const std::lock_guard lock(mMutex);
        return mEffects[effectOf(request)];
    }

    rig::Rig& mRig;
    tCase mCase;
    tFigures mFigures;
    EscapeFinder mFinder;
    Tap mBelow;
    Forger mForger;
    qv::BadLine mLine;
    Tap mAbove;
    qv::Peer mPeer;
    std::mt19937_64 mRandom{mCase.seed};
    unsigned mNow = 0;
    bool mGood = false;      ///< the line, for a while
    bool mOver = false;      ///< nothing is spoilt any more
    unsigned mGoodSince = 0; ///< frames sent until then
    std::vector<unsigned> mSet;
    std::vector<unsigned> mUnknown;
    std::vector<unsigned> mEscapes; ///< the requests under way when a spoilt frame passed the CRC
    unsigned mReadsAsked = 0;       ///< each number that one was given counts
    std::mutex mMutex;              ///< guards what follows
    std::map<std::string, unsigned> mEffects;
    unsigned mReads = 0;
};

/// The probability that a burst begins, so that the given share of the frames lies in one.
double burstStart(double share)
{
    return share / (kBurst - share * kBurst + share);
}

} // namespace

const std::vector<std::string> kKinds = {"frames", "bytes", "late", "bursts", "all"};

qv::tBadLineOptions optionsOf(const tCase& what)
{
    const double rate = what.percent / 100.0;
    if (what.kind == "frames")
        return {.lose = rate, .corrupt = rate, .seed = what.seed};
    if (what.kind == "bytes")
        return {.corrupt = rate, .run = 8, .stray = rate, .split = true, .splitPause = 1ms, .seed = what.seed};
    if (what.kind == "late")
        return {.lose = rate, .split = true, .splitPause = 1ms, .delay = 2ms, .seed = what.seed};
    if (what.kind == "bursts")
        return {.lose = burstStart(rate), .corrupt = burstStart(rate), .run = 16, .burst = kBurst, .seed = what.seed};
    if (what.kind == "all")
        return {.lose = burstStart(rate / 2),
                .corrupt = burstStart(rate / 2),
                .run = 16,
                .stray = rate / 2,
                .split = true,
                .splitPause = 1ms,
                .delay = 2ms,
                .burst = kBurst,
                .seed = what.seed};
    throw std::invalid_argument("no such kind of line: " + what.kind);
}

std::string tFigures::header()
{
    return format("%-7s %4s %8s | %8s %8s %8s | %8s %8s %8s | %8s %7s %7s | %3s %3s %3s | %6s %4s | %8s %8s %5s",
                  "line", "%", "requests", "sent", "lost", "garbled", "received", "lost", "garbled", "repeats",
                  "resets", "unknown", "out", "in", "did", "mended", "step", "effects", "seen", "wrong");
}

std::string tFigures::row(const tCase& what) const
{
    return format("%-7s %4u %8u | %8u %8u %8u | %8u %8u %8u | %8u %7u %7u | %3u %3u %3u | %6u %4u | %8u %8u %5u",
                  what.kind.c_str(), what.percent, what.requests, sent.frames, sent.lost, sent.corrupted,
                  received.frames, received.lost, received.corrupted, peer.repeats, peer.resets, unknown, escapesOut,
                  escapesIn, byEscapes, mended, framesToStep, effectsExpected, effectsSeen, wrongAnswers);
}

tFigures run(rig::Rig& rig, const tCase& what)
{
    // A fast rate: the daemon waits seven characters' time before each read.
    sim::Daemon::tOptions options;
    options.arguments = {"-s", rig.device().line().path(), "-b", "4000000"};
    rig.start(options);
    if (!rig.inStep())
        throw std::runtime_error("the daemon does not answer");
    return Run(rig, what).requests();
}

} // namespace bad_line
