#include "qv/BadLine.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace qv {

namespace {
using std::chrono::milliseconds;
constexpr milliseconds kPauseStep{20};                     ///< how soon a stop is noticed
constexpr std::uint64_t kReceiveSeed = 0x9E3779B97F4A7C15; ///< keeps the two directions from failing together
} // namespace

BadLine::BadLine(Line& line, const tBadLineOptions& options)
    : mLine(line)
    , mOptions(options)
{
    mOut.random.seed(options.seed);
    mIn.random.seed(options.seed ^ kReceiveSeed);
}

void BadLine::setOptions(const tBadLineOptions& options)
{
    mOptions = options;
    for (auto* direction : {&mOut, &mIn}) {
        direction->loseLeft = 0;
        direction->corruptLeft = 0;
    }
}

bool BadLine::hits(tDirection& direction, double probability)
{
    constexpr double kScale = 1.0 / 9007199254740992.0; // 53 bits, the same on every platform
    return static_cast<double>(direction.random() >> 11) * kScale < probability;
}

std::size_t BadLine::below(tDirection& direction, std::size_t limit)
{
    return static_cast<std::size_t>(direction.random() % limit);
}

bool BadLine::hitsInBurst(tDirection& direction, double probability, unsigned& left) const
{
    if (left == 0 && hits(direction, probability)) {
        left = std::max(1U, mOptions.burst);
    }
    if (left == 0) {
        return false;
    }
    --left;
    return true;
}

std::vector<std::pair<milliseconds, Bytes>> BadLine::spoil(tDirection& direction, Bytes frame) const
{
    auto& counts = direction.counts;
    ++counts.frames;
    if (hitsInBurst(direction, mOptions.lose, direction.loseLeft)) {
        ++counts.lost;
        return {};
    }
    if (!frame.empty() && hitsInBurst(direction, mOptions.corrupt, direction.corruptLeft)) {
        ++counts.corrupted;
        const auto at = below(direction, frame.size());
        const auto end = at + 1 + (mOptions.run > 1 ? below(direction, mOptions.run) : 0);
        for (auto i = at; i < std::min(end, frame.size()); ++i) {
            frame[i] ^= static_cast<std::uint8_t>(1 + below(direction, 255));
        }
    }
    if (hits(direction, mOptions.stray)) {
        ++counts.strays;
        frame.insert(frame.begin(), static_cast<std::uint8_t>(below(direction, 256)));
    }
    milliseconds delay{0};
    if (mOptions.delay.count() > 0) {
        ++counts.delayed;
        delay = milliseconds(below(direction, static_cast<std::size_t>(mOptions.delay.count()) + 1));
    }
    if (!mOptions.split || frame.size() < 2) {
        return {{delay, std::move(frame)}};
    }
    ++counts.splits;
    const auto cut = frame.begin() + 1 + static_cast<std::ptrdiff_t>(below(direction, frame.size() - 1));
    return {{delay, Bytes(frame.begin(), cut)}, {mOptions.splitPause, Bytes(cut, frame.end())}};
}

bool BadLine::pauseFor(milliseconds time) const
{
    const auto end = Clock::now() + time;
    for (auto now = Clock::now(); now < end; now = Clock::now()) {
        if (mStop != nullptr && *mStop) {
            return false;
        }
        std::this_thread::sleep_until(std::min<Clock::time_point>(end, now + kPauseStep));
    }
    return true;
}

void BadLine::write(ByteView bytes)
{
    bool begun = false; // then the rest follows, stopped or not: half a frame would spoil the next one
    for (const auto& [pause, piece] : spoil(mOut, Bytes(bytes.begin(), bytes.end()))) {
        if (!pauseFor(pause) && !begun) {
            return;
        }
        mLine.write(piece);
        begun = true;
    }
}

void BadLine::queueReceived(ByteView bytes)
{
    mCutter.feed(bytes);
    while (auto frame = mCutter.next()) {
        frame->push_back(kDelimiter);
        auto due = Clock::now();
        if (!mQueue.empty()) {
            due = std::max(due, mQueue.back().due);
        }
        for (auto& [pause, piece] : spoil(mIn, std::move(*frame))) {
            due += pause;
            mQueue.push_back({due, std::move(piece)});
        }
    }
}

Bytes BadLine::read(Clock::time_point deadline)
{
    for (;;) {
        const auto now = Clock::now();
        if (!mQueue.empty() && mQueue.front().due <= now) {
            auto bytes = std::move(mQueue.front().bytes);
            mQueue.pop_front();
            return bytes;
        }
        const auto wake = mQueue.empty() ? deadline : std::min(deadline, mQueue.front().due);
        const auto bytes = mLine.read(wake);
        if (!bytes.empty()) {
            queueReceived(bytes);
        } else if (wake == deadline) {
            return {};
        }
    }
}

} // namespace qv
