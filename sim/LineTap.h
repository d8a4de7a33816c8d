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
        std::string waiting;   ///< bytes that the other side has not taken yet
        EventSourcePtr source; ///< of the side that it reads from
    };

    void attach();
    void detach();
    static int onReady(sd_event_source* source, int fd, std::uint32_t events, void* data) noexcept;
    int target(const tDirection& direction) const;
    /// False when there is no more to come.
    bool receive(tDirection& direction, int fd);
    void flush(tDirection& direction) const;
    void waitFor(const tDirection& in, const tDirection& out);
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
