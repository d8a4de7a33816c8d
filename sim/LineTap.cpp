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
        if (sd_event_add_io(mDevice.loop().event(), &source, fd, EPOLLIN, onReady, direction) >= 0)
            direction->source.reset(source);
    }
}

void LineTap::detach()
{
    for (tDirection* direction : {&mFromQv, &mFromDaemon}) {
        direction->source.reset();
        direction->waiting.clear();
        direction->cutter = {};
    }
}

int LineTap::target(const tDirection& direction) const
{
    return direction.fromQv ? mDevice.line().master() : mOuter.master();
}

int LineTap::onReady(sd_event_source* source, int fd, std::uint32_t events, void* data) noexcept
{
    auto& in = *static_cast<tDirection*>(data);
    LineTap& tap = *in.tap;
    tDirection& out = in.fromQv ? tap.mFromDaemon : tap.mFromQv;
    if ((events & EPOLLOUT) != 0)
        tap.flush(out);
    if ((events & ~std::uint32_t{EPOLLOUT}) != 0 && !tap.receive(in, fd))
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
    tap.waitFor(in, out);
    tap.waitFor(out, in);
    return 0;
}

bool LineTap::receive(tDirection& direction, int fd)
{
    std::array<std::uint8_t, 4096> chunk{};
    const ssize_t got = read(fd, chunk.data(), chunk.size());
    if (got <= 0)
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    const auto bytes = qv::ByteView(chunk).first(static_cast<std::size_t>(got));
    direction.cutter.feed(bytes);
    while (const auto wire = direction.cutter.next())
        record(direction, *wire);
    direction.waiting.append(bytes.begin(), bytes.end());
    flush(direction);
    return true;
}

void LineTap::flush(tDirection& direction) const
{
    while (!direction.waiting.empty()) {
        const ssize_t done = write(target(direction), direction.waiting.data(), direction.waiting.size());
        if (done <= 0)
            return;
        direction.waiting.erase(0, static_cast<std::size_t>(done));
    }
}

/// A side is read while the other one takes what comes, and written to while something waits for it.
void LineTap::waitFor(const tDirection& in, const tDirection& out)
{
    if (in.source)
        sd_event_source_set_io_events(in.source.get(), (in.waiting.size() < kWaitingLimit ? EPOLLIN : 0U) |
                                                           (out.waiting.empty() ? 0U : EPOLLOUT));
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
