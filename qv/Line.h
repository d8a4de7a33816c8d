#pragma once

#include "qv/Bytes.h"

#include <chrono>
#include <stdexcept>

namespace qv {

using Clock = std::chrono::steady_clock;

/// The line cannot be used (any more); the text says what happened.
class LineError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// A way to send and receive bytes. Used by one thread at a time.
class Line
{
public:
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    virtual ~Line() = default;

    /// Sends all of `bytes`; the callers send one frame with each call. Throws LineError when the line takes no bytes
    /// for some seconds or is gone.
    virtual void write(ByteView bytes) = 0;

    /// What has arrived: at least one byte, or nothing when `deadline` passes first (a deadline in the past asks
    /// without waiting). Throws LineError when the line is gone.
    virtual Bytes read(Clock::time_point deadline) = 0;
};

} // namespace qv
