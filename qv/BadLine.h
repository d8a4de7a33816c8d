#pragma once

#include "qv/Frame.h"
#include "qv/Line.h"

#include <atomic>
#include <deque>
#include <random>

namespace qv {

/// What a bad line does to each frame, in either direction. Probabilities are 0 to 1.
struct tBadLineOptions
{
    double lose = 0;    ///< the frame vanishes
    double corrupt = 0; ///< one byte of it, delimiter included, becomes another
    unsigned run = 1;   ///< a corruption garbles at most so many bytes in a row
    double stray = 0;   ///< a random byte comes before it
    bool split = false; ///< it comes in two pieces, `splitPause` apart
    std::chrono::milliseconds splitPause{5};
    std::chrono::milliseconds delay{0}; ///< it comes late by up to this; the order stays
    unsigned burst = 1;                 ///< a loss or corruption goes on for as many frames
    std::uint64_t seed = 1;

    bool isGood() const { return lose <= 0 && corrupt <= 0 && stray <= 0 && !split && delay.count() == 0; }
};

struct tBadLineCounts
{
    unsigned frames = 0;
    unsigned lost = 0;
    unsigned corrupted = 0;
    unsigned strays = 0;
    unsigned splits = 0;
    unsigned delayed = 0;
};

/// Spoils the frames that pass through it, the same way for the same seed and the same frames, and counts what it did.
/// Sending takes the frame's delay and pause; received bytes wait until their time has come.
class BadLine : public Line
{
public:
    BadLine(Line& line, const tBadLineOptions& options);

    /// From now on; bursts under way end. The seed stays what it was.
    void setOptions(const tBadLineOptions& options);

    /// While the flag is set, a delay ends at once and its frame is not sent; null: it is never set.
    void setStop(const std::atomic<bool>* stop) { mStop = stop; }

    void write(ByteView bytes) override;
    Bytes read(Clock::time_point deadline) override;

    const tBadLineCounts& sentCounts() const { return mOut.counts; }
    const tBadLineCounts& receivedCounts() const { return mIn.counts; }

private:
    struct tDirection
    {
        std::mt19937_64 random;
        tBadLineCounts counts;
        unsigned loseLeft = 0;
        unsigned corruptLeft = 0;
    };
    struct tPiece
    {
        Clock::time_point due;
        Bytes bytes;
    };

    static bool hits(tDirection& direction, double probability);
    static std::size_t below(tDirection& direction, std::size_t limit);
    bool hitsInBurst(tDirection& direction, double probability, unsigned& left) const;
    /// The frame's pieces with the time to wait before each; none when it is lost.
    std::vector<std::pair<std::chrono::milliseconds, Bytes>> spoil(tDirection& direction, Bytes frame) const;
    void queueReceived(ByteView bytes);
    /// False when it was stopped.
    bool pauseFor(std::chrono::milliseconds time) const;

    const std::atomic<bool>* mStop = nullptr;
    Line& mLine;
    tBadLineOptions mOptions;
    tDirection mOut;
    tDirection mIn;
    FrameCutter mCutter;
    std::deque<tPiece> mQueue;
};

} // namespace qv
