#pragma once

#include "qv/Line.h"

#include <termios.h>

#include <optional>
#include <string>

namespace qv {

/// Another program holds the port. Two that share one would take each other's replies.
class PortInUse : public LineError
{
public:
    using LineError::LineError;
};

/// A serial port, or any file descriptor that stands for one.
class Port : public Line
{
public:
    /// Opens the device raw, 8N1, without flow control, and throws away what waited in it. A rate that isKnownRate
    /// refuses, a device that cannot be opened or that is no terminal: LineError. A device that is open in another
    /// Port, of this program or another: PortInUse. It is left as it is then. When the Port goes, the device gets the
    /// settings back with which it was found.
    static Port open(const std::string& device, unsigned baud);

    /// Takes a descriptor over, for instance the master of a pty, and makes it non-blocking. It is used as it is: no
    /// terminal settings are touched. While its other end is closed, reads wait as on a silent line.
    static Port adopt(int fd);

    static bool isKnownRate(unsigned baud);
    /// "50, 75, ... 4000000"
    static std::string knownRates();

    Port(Port&& other) noexcept;
    ~Port() override;

    void write(ByteView bytes) override;
    Bytes read(Clock::time_point deadline) override;
    int fd() const { return mFd; }

private:
    Port(int fd, bool adopted);
    /// Waits for `events`; false when the deadline passed.
    bool wait(short events, Clock::time_point deadline);

    int mFd;
    bool mAdopted;
    std::optional<termios> mFound; ///< the settings to give back
};

} // namespace qv
