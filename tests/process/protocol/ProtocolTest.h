#pragma once

#include "tests/process/Rig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// The real daemon on the simulated device, with QV at the other end of the line. Whatever the daemon writes is
/// compared byte for byte at the end of the test: what is expected has to be announced with prints() and complains().
/// It must then still be in step, stop cleanly and have sent nothing that nobody asked for.
class ProtocolTest : public testing::Test
{
protected:
    using Bytes = qv::Bytes;
    using Calls = std::vector<std::string>;

    void TearDown() override;

    // The device
    sim::SysDaemon& sysd() { return mRig.device().sysd(); }
    sim::LogoHandler& logo() { return mRig.device().logo(); }
    sim::IdleApp& idle() { return mRig.device().idle(); }
    sim::Timeline& timeline() { return mRig.timeline(); }

    /// Starts the daemon: it is in step with QV and has made its first attempt at the user bus.
    void boot(const sim::Daemon::tOptions& options = {});
    /// The same for a daemon that was started already.
    void bootRunning();
    /// Ends it as at the end of the test and compares what it wrote.
    void stop();

    // Requests. Each begins a new span of the timeline, of which calls() and the others speak.
    /// The reply as hex, "none" without one.
    std::string ask(const Bytes& message);
    /// Sends a request without waiting for its reply.
    void tell(const Bytes& message);
    /// The reply to the request that was told last.
    std::string reply();
    /// A new span without a request.
    void beginSpan() { mSpan = timeline().mark(); }
    /// A span from the very beginning.
    void beginAll() { mSpan = 0; }

    // What came of it
    /// The calls of this span, those of the system daemon without its name: SetParamInt(0, 3), logo.Start().
    Calls calls();
    static bool has(const Calls& calls, const std::string& call) { return std::ranges::count(calls, call) > 0; }
    /// The signals and property changes of this span that have arrived up to now, and all that were sent before it:
    /// waits for one that is sent on purpose behind them, by a write of QV's status.
    Calls signals();
    /// Waits for an event of this span.
    bool comes(const sim::Timeline::Predicate& match) { return timeline().waitFor(match, mSpan).has_value(); }
    bool came(const sim::Timeline::Predicate& match) { return timeline().find(match, mSpan).has_value(); }
    /// Runs the action on the simulated device whenever it gets such a call.
    void when(const std::string& call, std::function<void()> action);

    // The daemon's lines, in their order, each with its newline
    void prints(const std::string& lines) { mOut += lines; }
    /// Two threads write, so that lines come in any order; still none is missing and none is too many.
    void linesInAnyOrder() { mAnyOrder = true; }
    /// Which lines come depends on who is faster.
    void anyLines() { mAnyLines = true; }
    void complains(const std::string& lines) { mErr += lines; }

    rig::Rig mRig;

private:
    void compareLines();

    std::size_t mSpan = 0;
    std::string mOut = rig::kStarted;
    std::string mErr;
    bool mAnyOrder = false;
    bool mAnyLines = false;
    bool mBooted = false;
    std::uint8_t mMark = 200; ///< status that signals() writes next
    std::map<std::string, std::function<void()>> mActions;
};

// Requests by their names.
namespace req {

using qv::Bytes;

/// The bytes one behind the other.
Bytes joined(std::initializer_list<Bytes> parts);
/// Two bytes, low byte first.
Bytes u16(unsigned int value);
Bytes u32(std::uint32_t value);

inline constexpr std::uint8_t kNotRunning = 3;

inline Bytes setTime()
{
    return rig::call(wire::eMethodSetTime, {0x00, 0xF1, 0x53, 0x65, 0, 0, 0, 0}); // 1 700 000 000
}
inline Bytes status(std::uint8_t value)
{
    return rig::writeReg(wire::eRegWrQVStatus, Bytes{value});
}
inline Bytes running()
{
    return status(wire::kStatusRunning);
}
inline Bytes address(const std::string& address)
{
    return rig::writeReg(wire::eRegWrQVIpAddr, rig::text(address));
}
inline Bytes applyConfig()
{
    return rig::call(wire::eMethodApplyConfig);
}

} // namespace req
