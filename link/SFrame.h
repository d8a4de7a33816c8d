#pragma once

#include "link/SerialIf.h"

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

/// Delimits frames on the transport with Consistent Overhead Byte Stuffing (Cheshire and Baker, 1997): no zero byte
/// inside a frame, one zero byte after it. The link controller's thread reads, the reply thread writes. No failure of
/// the transport leaves it: a failure is a false result, and the broken flag when the link must be built anew.
class SFrame
{
public:
    /// Bytes kept of a frame whose delimiter does not come; what follows is dropped.
    static constexpr std::size_t kMaxGathered = std::size_t{1} << 20;

    /// Opens the registered backend; false when that fails.
    bool init();

    /// Encodes `in` into `out`, which holds at least in->size() + in->size() / 254 + 1 bytes, without the delimiter.
    /// Returns the number of bytes written.
    static int encodeSFrame(const std::vector<unsigned char>* in, unsigned char* out);

    /// Decodes in place and returns the new length. Any bytes will do: a group that is cut short gives what is there,
    /// a zero code byte ends the frame.
    static unsigned int decodeSFrame(std::vector<unsigned char>& buf);

    /// Sends one frame. False when it was not written whole.
    bool writeSFrame(const std::vector<unsigned char>* frame);

    /// Appends what comes up to the next delimiter to `out` and decodes the whole of it.
    /// False on time-out (what came so far stays in `out`) and on failure.
    bool readSFrame(std::vector<unsigned char>& out);

    /// The transport failed in a way that needs the link to be built anew.
    bool isBroken() const { return mBroken; }

    /// Text of the last failure; empty before the first.
    std::string lastError() const;

private:
    int readChunk(unsigned char* chunk, unsigned int size);
    void onFailure() noexcept;
    void setLastError(const char* text) noexcept;

    SerialIf* mpBackend = nullptr;
    std::string mLastError; ///< empty when there is no memory for it; guarded by mErrorMutex
    std::atomic<bool> mBroken = false;
    mutable std::mutex mErrorMutex;
};
