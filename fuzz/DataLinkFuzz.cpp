// Any byte stream, in chunks of any size, into the data link; every message that it delivers is answered. What it sends
// must be well-formed frames whose numbers follow the rules.

#include "fuzz/Check.h"
#include "fuzz/InlineThreads.h"
#include "link/SDataLink.h"
#include "link/SManager.h"
#include "qv/Frame.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

/// A line that delivers the input and then breaks. In the input each chunk comes behind a byte that holds its length.
class FuzzedSerial : public SerialIf
{
public:
    void feed(const std::uint8_t* data, std::size_t size)
    {
        mData = data;
        mLeft = size;
        mLastSent.clear();
    }

    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }

    int readBlocking(unsigned char* buf, unsigned int len, int) override
    {
        if (mLeft == 0)
            throw std::runtime_error("end of input");
        const auto count = std::min<std::size_t>({*mData % 65U, mLeft - 1, len});
        std::memcpy(buf, mData + 1, count);
        mData += 1 + count;
        mLeft -= 1 + count;
        return static_cast<int>(count);
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        check(len >= 2 && buf[len - 1] == 0, "a frame on the line ends with the delimiter");
        const auto frame = qv::parseWire({buf, len - 1});
        check(frame.ok(), "a frame on the line is well-formed");
        check((frame.header & 0xE0U) == 0, "bits 5 to 7 of a header are zero");
        mLastSent = frame.bytes;
        return static_cast<int>(len);
    }

private:
    const std::uint8_t* mData = nullptr;
    std::size_t mLeft = 0;
    std::vector<unsigned char> mLastSent;
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
    SDataLink link;
    link.init();
    for (SDataLink::tBytes message; link.read(message); message.clear()) {
        check(message.size() >= 2, "a message has two bytes at least");
        link.reply(std::make_unique<SDataLink::tBytes>(message));
    }
    return 0;
}
