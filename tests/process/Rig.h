#pragma once

#include "protocol/Wire.h"
#include "qv/Peer.h"
#include "qv/Port.h"
#include "sim/Device.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace rig {

using sim::Clock;
using sim::kDeadline;
using sim::milliseconds;

inline constexpr char kStarted[] = "kelvora vorlan daemon started\n";
inline constexpr char kStopped[] = "kelvora vorlan daemon stopped\n";
inline constexpr char kWaiting[] = "Waiting for sysdaemon ready...retrying..\n";
inline constexpr char kRetrying[] = "SDBusManager: Failed init DBus...retrying..\n";
inline constexpr char kStopping[] = "SDBusManager: Stopping...\n";
inline constexpr char kUsage[] = "Usage: vorlan daemon [-opts]\n"
                                 "\n"
                                 "Options:\n"
                                 "-s, --serialdev=path\tpath to serial device\n"
                                 "-b, --baudrate=<num>\baudrate to serial device\n";

/// The real daemon.
extern const char* const kVorlan;

/// With this in its environment the daemon gives up a silent service after two seconds.
inline const std::map<std::string, std::string> kShortCalls = {{"SYSTEMD_BUS_TIMEOUT", "2s"}};

/// "02 1f 00"
std::string hex(qv::ByteView bytes);
std::string repeated(const std::string& text, std::size_t times);
std::size_t countOf(const std::string& text, const std::string& part);
/// The lines of the text that do not begin so.
std::string linesWithout(const std::string& text, const std::string& beginning);
/// A sanitizer's report, from where it begins; empty when there is none.
std::string sanitizerReport(const std::string& err);

// Request messages.
qv::Bytes readReg(std::uint8_t address);
qv::Bytes writeReg(std::uint8_t address, const qv::Bytes& value);
qv::Bytes call(std::uint8_t method, const qv::Bytes& arguments = {});
/// The zero byte at its end included.
qv::Bytes text(const std::string& text);

/// The simulated device with the real daemon on it, and QV at the other end of the line.
class Rig
{
public:
    explicit Rig(std::string executable = kVorlan);

    sim::Device& device() { return mDevice; }
    sim::Timeline& timeline() { return mDevice.timeline(); }
    sim::Daemon& daemon() { return mDevice.daemon(); }
    qv::Peer& peer() { return *mPeer; }
    qv::Port& port() { return *mPort; }

    void start(const sim::Daemon::tOptions& options = {});
    /// Starts it and gets in step with it.
    bool serve(const sim::Daemon::tOptions& options = {});
    /// QV at the line as it is now: after it was opened again.
    void connect();
    /// QV goes, and the line hangs up; connect() after it was opened again.
    void hangUp();
    /// A QV that knows nothing of what was before, on the same line.
    void restartPeer();
    /// Gets in step, trying again until the deadline.
    bool inStep(milliseconds deadline = kDeadline);
    /// The request's reply as hex, "none" without one.
    std::string ask(const qv::Bytes& message);
    /// Gets in step, reads register 0 and, through the system daemon, register 3.
    bool serves(milliseconds deadline = kDeadline);

    /// Sends all of it while reading, and dropping, whatever comes back. False when the line takes no more.
    bool pour(qv::ByteView bytes);
    /// What comes on the line up to so many delimiters; what there is at the deadline.
    qv::Bytes receive(std::size_t delimiters, milliseconds deadline = kDeadline);
    /// What lies on the line now.
    qv::Bytes leftovers();

    /// QV's part of the start-up up to its end: time, status and address. False when a request got no answer.
    bool tellConditions();
    /// The same, and ApplyConfig.
    bool tellStory();
    /// The same, and the visualisation has been applied.
    bool playStory();

    /// Waits until the daemon waits for a request, past every look at the flag that a signal raises: the next request
    /// is read whatever comes before it.
    bool waitsForRequest();
    /// SIGTERM, and the request that the daemon delivers before it ends.
    std::optional<sim::tExit> stop(milliseconds deadline = kDeadline);
    /// Method 4: ended after its reply, with its reply.
    std::optional<sim::tExit> stopByUpdate(milliseconds deadline = kDeadline);

    /// Voluntary context switches of all the daemon's threads so far.
    std::uint64_t wakeUps();
    /// The processor time that it has used, in clock ticks.
    std::uint64_t processorTime();
    /// Waits until the daemon has dealt with what came on the line, has waited a second for more and waits again.
    bool readTimesOut();

private:
    std::string mExecutable;
    sim::Device mDevice;
    std::unique_ptr<qv::Port> mPort;
    std::unique_ptr<qv::Peer> mPeer;
};

} // namespace rig
