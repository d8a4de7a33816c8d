// Any byte stream, in pieces of any size, into the data link; every message that it delivers is answered. What it
// delivers and what it sends is compared, byte for byte, with what the rules of the link say.

#include "fuzz/Check.h"
#include "fuzz/InlineThreads.h"
#include "link/SDataLink.h"
#include "link/SManager.h"
#include "qv/Crc.h"
#include "qv/Frame.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace {

using qv::Bytes;

/// The rules of the daemon's end once more, for one frame after another.
class Rules
{
public:
    std::optional<Bytes> mToSend;    ///< the frame that is to be sent next
    std::optional<Bytes> mToDeliver; ///< the message that is to be delivered next

    std::uint8_t number() const { return mNumber; }

    void onFrame(const Bytes& frame)
    {
        settled();
        const auto header = frame.empty() ? std::uint8_t{0} : frame[0];
        const std::uint8_t number = header & qv::kNumberMask;
        const bool reset = (header & qv::kResetFlag) != 0;
        if (frame.size() < kShortest)
            sendReset();
        else if (!isSound(frame))
            resend();
        else if (!reset && mInStep && mNumber == qv::nextNumber(number))
            resend();
        else if (!reset && (!mInStep || number != mNumber))
            sendReset();
        else {
            mInStep = true;
            mNumber = number;
            mToDeliver.emplace(frame.begin() + 1, frame.end() - 2);
        }
    }

    void onReply(qv::ByteView message) { send(0, message); }

    /// Everything that the frames so far ask for has been done.
    void settled() const
    {
        check(!mToSend, "every frame is answered");
        check(!mToDeliver, "every valid request is delivered");
    }

private:
    static constexpr std::size_t kShortest = 5;

    static bool isSound(const Bytes& frame)
    {
        const auto crc = qv::crc16(qv::ByteView(frame).first(frame.size() - 2));
        return frame[frame.size() - 2] == crc >> 8U && frame.back() == (crc & 0xFFU);
    }

    void send(std::uint8_t flag, qv::ByteView message)
    {
        mNumber = qv::nextNumber(mNumber);
        mLast = qv::buildFrame(static_cast<std::uint8_t>(mNumber | flag), message);
        mToSend = mLast;
    }

    void sendReset()
    {
        mInStep = false;
        send(qv::kResetFlag, Bytes{0});
    }

    void resend()
    {
        if (mLast.empty())
            sendReset();
        else
            mToSend = mLast;
    }

    Bytes mLast;              ///< empty before the first
    std::uint8_t mNumber = 0; ///< of the last frame sent, or of the last reset received
    bool mInStep = false;
};

/// A line that delivers the input and then breaks. The input is a row of pieces, each behind a byte that holds its
/// length in the low bits. Pieces are raw bytes, or with kMade frames (header and message) that the line completes.
class FuzzedSerial : public SerialIf
{
public:
    void feed(const std::uint8_t* data, std::size_t size)
    {
        mData = {data, size};
        mMade.clear();
        mGathered.clear();
        mRules = Rules();
    }

    Rules& rules() { return mRules; }

    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }

    int readBlocking(unsigned char* buf, unsigned int len, int) override
    {
        if (mMade.empty() && mData.empty())
            throw std::runtime_error("end of input");
        Bytes chunk = std::exchange(mMade, {});
        if (chunk.empty()) {
            const std::uint8_t control = take(1).at(0);
            chunk = (control & kMade) != 0 ? makeFrame(control) : take(control % kRawEnd);
        }
        if (chunk.size() > len) {
            mMade.assign(chunk.begin() + static_cast<std::ptrdiff_t>(len), chunk.end());
            chunk.resize(len);
        }
        std::ranges::copy(chunk, buf);
        onChunk(chunk);
        return static_cast<int>(chunk.size());
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        check(len >= 2 && buf[len - 1] == 0, "a frame on the line ends with the delimiter");
        const auto frame = qv::parseWire({buf, len - 1});
        check(frame.ok(), "a frame on the line is well-formed");
        check(mRules.mToSend.has_value(), "nothing is sent unasked");
        check(frame.bytes == std::exchange(mRules.mToSend, std::nullopt),
              "the frame is a reply, a reset frame or the last one again, as the rules say");
        return static_cast<int>(len);
    }

private:
    static constexpr std::uint8_t kMade = 0x80;     ///< the line adds CRC and byte stuffing
    static constexpr std::uint8_t kRelative = 0x40; ///< and counts the number from the one that the link expects
    static constexpr std::size_t kRawEnd = 65;

    Bytes take(std::size_t count)
    {
        count = std::min(count, mData.size());
        Bytes taken(mData.begin(), mData.begin() + static_cast<std::ptrdiff_t>(count));
        mData = mData.subspan(count);
        return taken;
    }

    Bytes makeFrame(std::uint8_t control)
    {
        const Bytes content = take(1U + control % kRelative);
        std::uint8_t header = content.empty() ? std::uint8_t{0} : content[0];
        if ((control & kRelative) != 0)
            header =
                static_cast<std::uint8_t>((header & ~qv::kNumberMask) | ((header + mRules.number()) & qv::kNumberMask));
        return qv::toWire(qv::buildFrame(header, qv::ByteView(content).subspan(content.empty() ? 0 : 1)));
    }

    /// A frame ends where a chunk ends with the delimiter.
    void onChunk(const Bytes& chunk)
    {
        mGathered.insert(mGathered.end(), chunk.begin(), chunk.end());
        if (chunk.empty() || chunk.back() != qv::kDelimiter)
            return;
        Bytes frame = std::exchange(mGathered, {});
        frame.pop_back();
        SFrame::decodeSFrame(frame);
        mRules.onFrame(frame);
    }

    qv::ByteView mData;
    Bytes mMade; ///< what is left of a frame that did not fit into the reader's buffer
    Bytes mGathered;
    Rules mRules;
};

FuzzedSerial& line()
{
    static auto* const registered = [] {
        auto* serial = new FuzzedSerial;
        SManager::registerSerialBackend(serial); // takes it over
        return serial;
    }();
    return *registered;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const InlineThreads inlineThreads;
    line().feed(data, size);
    Rules& rules = line().rules();
    SDataLink link;
    link.init();
    for (SDataLink::tBytes message; link.read(message); message.clear()) {
        check(message == std::exchange(rules.mToDeliver, std::nullopt), "a message is the request's, unchanged");
        rules.onReply(message);
        link.reply(std::make_unique<SDataLink::tBytes>(message));
    }
    rules.settled();
    return 0;
}
