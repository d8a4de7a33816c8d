#include "link/SFrame.h"

#include "link/SManager.h"
#include "link/SerialException.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>
#include <thread>

namespace {

constexpr int kTimeoutMs = 1000;
constexpr unsigned int kChunkSize = 64;
constexpr std::size_t kUsualSize = 256;
constexpr unsigned char kDelimiter = 0;
constexpr unsigned char kFullGroup = 0xFF; ///< code of 254 bytes with no zero after them
/// Fills a long frame between the end of its encoding and the delimiter; any byte but the delimiter would do.
constexpr unsigned char kFiller = 0x01;

std::size_t encodedCapacity(std::size_t length)
{
    return length + length / 254 + 1;
}

} // namespace

bool SFrame::init()
{
    if (!SManager::mgr()->initBackend())
        return false;
    mpBackend = SManager::getSerialBackend();
    return true;
}

int SFrame::encodeSFrame(const std::vector<unsigned char>* in, unsigned char* out)
{
    std::size_t codeAt = 0;
    std::size_t end = 1;
    unsigned char code = 1;
    const auto closeGroup = [&] {
        out[codeAt] = code;
        codeAt = end++;
        code = 1;
    };
    for (std::size_t i = 0; i < in->size(); ++i) {
        const unsigned char byte = (*in)[i];
        if (byte != 0) {
            out[end++] = byte;
            ++code;
        }
        if (byte == 0 || (code == kFullGroup && i + 1 < in->size()))
            closeGroup();
    }
    out[codeAt] = code;
    return static_cast<int>(end);
}

unsigned int SFrame::decodeSFrame(std::vector<unsigned char>& buf)
{
    std::size_t readAt = 0;
    std::size_t writeAt = 0;
    unsigned char previous = kFullGroup;
    while (readAt < buf.size()) {
        const unsigned char code = buf[readAt++];
        if (previous < kFullGroup)
            buf[writeAt++] = 0;
        if (code == kDelimiter)
            break;
        const std::size_t count = std::min<std::size_t>(code - 1U, buf.size() - readAt);
        std::copy_n(buf.begin() + static_cast<std::ptrdiff_t>(readAt), count,
                    buf.begin() + static_cast<std::ptrdiff_t>(writeAt));
        readAt += count;
        writeAt += count;
        previous = code;
    }
    buf.resize(writeAt);
    return static_cast<unsigned int>(writeAt);
}

bool SFrame::writeSFrame(const std::vector<unsigned char>* frame)
{
    try {
        if (mpBackend == nullptr)
            throw std::logic_error("no backend");
        // No allocation for a reply of usual length: a thread's first one costs more than the rest of the reply.
        unsigned char usual[kUsualSize];
        std::vector<unsigned char> longer;
        const std::size_t size = encodedCapacity(frame->size()) + 1;
        unsigned char* wire = usual;
        if (size > kUsualSize) {
            longer.resize(size);
            wire = longer.data();
        }
        std::fill(wire + encodeSFrame(frame, wire), wire + size - 1, kFiller);
        wire[size - 1] = kDelimiter;
        return mpBackend->writeBlocking(wire, static_cast<unsigned int>(size), kTimeoutMs) >= static_cast<int>(size);
    } catch (...) {
        onFailure();
        return false;
    }
}

bool SFrame::readSFrame(std::vector<unsigned char>& out)
{
    try {
        unsigned char chunk[kChunkSize];
        for (;;) {
            const int count = readChunk(chunk, kChunkSize);
            if (count == 0)
                return false;
            if (count < 0)
                continue;
            const bool complete = chunk[count - 1] == kDelimiter;
            const auto room = static_cast<std::ptrdiff_t>(kMaxGathered - std::min(out.size(), kMaxGathered));
            out.insert(out.end(), chunk, chunk + std::min<std::ptrdiff_t>(count - (complete ? 1 : 0), room));
            if (complete) {
                decodeSFrame(out);
                return true;
            }
        }
    } catch (...) {
        onFailure();
        return false;
    }
}

int SFrame::readChunk(unsigned char* chunk, unsigned int size)
{
    if (mpBackend != nullptr)
        return mpBackend->readBlocking(chunk, size, kTimeoutMs);
    // Without a backend the link is built anew after this: once a second, not in a spinning loop.
    std::this_thread::sleep_for(std::chrono::milliseconds(kTimeoutMs));
    throw std::logic_error("no backend");
}

/// Called inside a catch block: a serial failure breaks the link only if it left the port closed, any other does.
void SFrame::onFailure() noexcept
{
    try {
        throw;
    } catch (const SerialException& e) {
        if (!mpBackend->isOpen())
            mBroken = true;
        setLastError(e.what());
    } catch (...) {
        mBroken = true;
        setLastError("unknown");
    }
}

void SFrame::setLastError(const char* text) noexcept
{
    const std::lock_guard lock(mErrorMutex);
    try {
        mLastError = text;
    } catch (const std::bad_alloc&) {
        mLastError.clear();
    }
}

std::string SFrame::lastError() const
{
    const std::lock_guard lock(mErrorMutex);
    return mLastError;
}
