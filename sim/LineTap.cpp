#include "sim/LineTap.h"

#include "protocol/Wire.h"
#include "qv/Trace.h"
#include "qv/Values.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace sim {

namespace {

/// What is kept for a side that takes nothing.
constexpr std::size_t kWaitingLimit = 1 << 20;
constexpr std::size_t kShownBytes = 16;

std::string shortHex(qv::ByteView bytes)
{
    if (bytes.size() <= kShownBytes)
        return qv::hexText(bytes);
    return qv::hexText(bytes.first(kShownBytes)) + " ... (" + std::to_string(bytes.size()) + " bytes)";
}

} // namespace

LineTap::LineTap(Device& device)
    : mDevice(device)
    , mOuter(device.folder() + "/port")
    , mPath(mOuter.path())
{
    mFromQv.tap = this;
    mFromQv.fromQv = true;
    mFromDaemon.tap = this;
    mDevice.loop().call([this] { attach(); });
    mDevice.watchLine([this](bool up) { up ? attach() : detach(); });
}

LineTap::~LineTap()
{
    mDevice.watchLine({});
    mDevice.loop().call([this] { detach(); });
}

void LineTap::attach()
{
    const std::pair<tDirection*, int> inputs[] = {{&mFromQv, mOuter.master()}, {&mFromDaemon, mDevice.line().master()}};
    for (const auto& [direction, fd] : inputs) {
        sd_event_source* source = nullptr;
        if (sd_event_add_io(mDevice.loop().event(), &source, fd, EPOLLIN, onInput, direction) >= 0)
            direction->input.reset(source);
    }
}

void LineTap::detach()
{
    for (tDirection* direction : {&mFromQv, &mFromDaemon}) {
        direction->input.reset();
        direction->output.reset();
        direction->waiting.clear();
        direction->cutter = {};
    }
}

int LineTap::target(const tDirection& direction) const
{
    return direction.fromQv ? mDevice.line().master() : mOuter.master();
}

int LineTap::onInput(sd_event_source* source, int fd, std::uint32_t, void* data) noexcept
{
    auto& direction = *static_cast<tDirection*>(data);
    std::array<std::uint8_t, 4096> chunk{};
    const ssize_t got = read(fd, chunk.data(), chunk.size());
    if (got > 0)
        direction.tap->forward(direction, qv::ByteView(chunk).first(static_cast<std::size_t>(got)));
    else if (got == 0 || (errno != EAGAIN && errno != EINTR))
        sd_event_source_set_enabled(source, SD_EVENT_OFF); // no more to come from this line
    return 0;
}

int LineTap::onOutput(sd_event_source*, int fd, std::uint32_t, void* data) noexcept
{
    flush(*static_cast<tDirection*>(data), fd);
    return 0;
}

void LineTap::forward(tDirection& direction, qv::ByteView bytes)
{
    direction.cutter.feed(bytes);
    while (const auto wire = direction.cutter.next())
        record(direction, *wire);
    if (direction.waiting.size() + bytes.size() > kWaitingLimit)
        return;
    direction.waiting.append(bytes.begin(), bytes.end());
    flush(direction, target(direction));
    if (direction.waiting.empty() || direction.output != nullptr)
        return;
    sd_event_source* source = nullptr;
    if (sd_event_add_io(mDevice.loop().event(), &source, target(direction), EPOLLOUT, onOutput, &direction) >= 0)
        direction.output.reset(source);
}

void LineTap::flush(tDirection& direction, int fd)
{
    while (!direction.waiting.empty()) {
        const ssize_t done = write(fd, direction.waiting.data(), direction.waiting.size());
        if (done <= 0)
            return;
        direction.waiting.erase(0, static_cast<std::size_t>(done));
    }
    direction.output.reset();
}

void LineTap::record(const tDirection& direction, const qv::Bytes& wire)
{
    const auto frame = qv::parseWire(wire);
    tEvent event;
    event.channel = ChannelE::eLine;
    event.kind = KindE::eFrame;
    event.service = direction.fromQv ? "qv" : "vorlan";
    if (frame.ok()) {
        describe(event, frame, direction.fromQv);
        event.detail = shortHex(frame.bytes);
    } else {
        event.member = "broken";
        event.arguments = "a frame that is not valid";
        event.detail = shortHex(wire);
    }
    mDevice.timeline().add(std::move(event));
}

void LineTap::describe(tEvent& event, const qv::tParsedFrame& frame, bool fromQv)
{
    if (fromQv) {
        mRequest = frame.payload;
        event.member = frame.hasResetFlag() ? "reset" : "request";
        event.arguments = qv::describeRequest(frame.payload);
    } else if (frame.isResetFrame()) {
        event.member = "reset";
        event.arguments = "out of step: asks for a reset";
    } else {
        event.member = (frame.payload[0] & wire::kErrorBit) != 0 ? "refusal" : "reply";
        event.arguments = replyText(frame.payload);
    }
}

std::string LineTap::replyText(qv::ByteView payload) const
{
    if ((payload[0] & wire::kErrorBit) != 0)
        return "refused";
    const auto data = payload.subspan(1);
    if (mRequest.size() >= 2 && (mRequest[0] & wire::kCommandMask) == wire::eCmdReadReg)
        for (const auto& entry : wire::kReadRegisters)
            if (entry.address == mRequest[1])
                return qv::formatValue(entry.value.type, data);
    return data.empty() ? "done" : qv::hexText(data);
}

} // namespace sim
