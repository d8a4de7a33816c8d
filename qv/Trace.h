#pragma once

#include "qv/Peer.h"

#include <iosfwd>

namespace qv {

/// Writes each frame field by field: when, which way, what it is, its bytes on the line; then each field with its
/// offset in the frame.
class FrameTrace
{
public:
    explicit FrameTrace(std::ostream& out);

    void operator()(const tTraceEvent& event);

private:
    void writeFields(const tParsedFrame& frame, bool sent);
    void writeField(std::size_t offset, ByteView bytes, const std::string& meaning);
    void writeRequest(ByteView payload);
    void writeReply(ByteView payload);

    std::ostream& mOut;
    Clock::time_point mStart = Clock::now();
    Bytes mRequest; ///< the last one sent: it tells what a reply's bytes mean
};

/// The fields of a request message after its command byte, as a person reads them: "read brightness-raw",
/// "write qv-status 4", "call set-cfg-long key=Mode value=3".
std::string describeRequest(ByteView message);

} // namespace qv
