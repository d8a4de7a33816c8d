#pragma once

#include "link/SFrame.h"
#include "os/Semaphore.h"

#include <pthread.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

/// The layer between frames and messages: a header byte (bits 0 to 3 sequence number, bit 4 reset) in front of each
/// message and a CRC-16/IBM-3740 behind it. Answers repeated requests from the stored last reply and broken frames by
/// reset frames, and sends the replies from a thread of its own, so that the next request can be read meanwhile. Used
/// by the link controller's thread only.
class SDataLink
{
public:
    using tBytes = std::vector<unsigned char>;

    /// What tryRead found.
    enum ReadE : int
    {
        eReadMessage = 0,
        eReadBroken = 1,
        eReadHandled = 2
    };

    /// onIdle is called on the reading thread after each wait for a frame that ended without one: about once a second
    /// while the line is silent.
    explicit SDataLink(std::function<void()> onIdle = {});
    ~SDataLink(); ///< waits until the last reply is written or given up
    SDataLink(const SDataLink&) = delete;
    SDataLink& operator=(const SDataLink&) = delete;

    /// Opens the transport; false when that fails.
    bool init();

    /// Blocks until a message has come (true) or the link is broken (false). Frames that are none of the caller's
    /// business are answered here.
    bool read(tBytes& msg);

    /// Like read, but returns after one frame, whatever it was.
    int tryRead(tBytes& msg);

    /// Frames a reply message and sends it.
    void reply(std::unique_ptr<tBytes> payload);

    /// Sends a finished link frame, or once more the stored last reply (a reset frame when there is none).
    /// Waits first until the previous reply is written.
    void reply(bool resend, std::unique_ptr<tBytes> frame);

    /// Tells QV to start again with a reset frame of its own.
    void sendResetFrame();

    unsigned int calcCrc16(const tBytes* data) const;

    /// Removes the two CRC bytes at the end of a frame of two bytes or more and tells whether they were right.
    bool checkRecvCrc(tBytes& frame) const;

private:
    using tCrcTable = std::array<std::uint16_t, 256>;

    static constexpr tCrcTable initCrcTable();
    bool awaitFrame(tBytes& msg);
    int checkRecvFrame(tBytes& frame);
    int answerHandled(bool resend);
    bool hasReplyThread();
    void writeReplies();
    void writeLastReply();
    void threadedReply(const tBytes* frame);

    static const tCrcTable smCrcTable;

    const std::function<void()> mOnIdle;
    std::unique_ptr<SFrame> mpFrame;
    pthread_t mReplyThread{};            ///< no std::thread: its state, freed there, would give the thread a heap
    bool mHasReplyThread = false;        ///< mReplyThread is to be joined
    bool mEnding = false;                ///< what mGiven announces is the end
    Semaphore mGiven{0};                 ///< the reply thread has a reply to write
    Semaphore mWritten{1};               ///< no reply is being written
    std::unique_ptr<tBytes> mpLastReply; ///< the reply thread's from mGiven to mWritten
    std::uint8_t mSequence = 0;          ///< of the last frame sent, or of the last reset frame received
    bool mSynchronised = false;
    bool mResetPending = false;
};
