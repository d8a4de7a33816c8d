#pragma once

#include "qv/Frame.h"
#include "sim/Device.h"

#include <map>
#include <string>

namespace sim {

/// The simulated device's serial socket: a second line, for QV, whose bytes go on to the daemon's line and back as they
/// are. Each frame that passes becomes an event of the timeline. Bytes that nobody takes for long are lost, as on any
/// line without flow control.
class LineTap
{
public:
    explicit LineTap(Device& device);
    LineTap(const LineTap&) = delete;
    LineTap& operator=(const LineTap&) = delete;
    ~LineTap();

    /// The port that QV opens; the same for as long as this object lives.
    const std::string& path() const { return mPath; }

private:
    struct tDirection
    {
        LineTap* tap = nullptr;
        bool fromQv = false;
        qv::FrameCutter cutter;
        std::string waiting; ///< bytes that the other side has not taken yet
        EventSourcePtr input;
        EventSourcePtr output;
    };

    void attach();
    void detach();
    static int onInput(sd_event_source* source, int fd, std::uint32_t events, void* data) noexcept;
    static int onOutput(sd_event_source* source, int fd, std::uint32_t events, void* data) noexcept;
    int target(const tDirection& direction) const;
    void forward(tDirection& direction, qv::ByteView bytes);
    static void flush(tDirection& direction, int fd);
    void record(const tDirection& direction, const qv::Bytes& wire);
    void describe(tEvent& event, const qv::tParsedFrame& frame, bool fromQv);
    std::string replyText(qv::ByteView payload) const;

    Device& mDevice;
    Pty mOuter;
    std::string mPath;
    tDirection mFromQv;
    tDirection mFromDaemon;
    qv::Bytes mRequest; ///< the last one, which a reply answers
};

} // namespace sim
