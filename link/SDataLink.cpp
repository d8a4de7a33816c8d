#include "link/SDataLink.h"

#include "os/Log.h"

#include <utility>

namespace {

constexpr std::uint8_t kSequenceMask = 0x0F;
constexpr std::uint8_t kResetFlag = 0x10;
constexpr std::size_t kMinFrame = 5;             ///< header, two bytes of message, CRC
constexpr std::size_t kKeptCapacity = 64 * 1024; ///< what a flood made larger is given back

std::uint8_t following(unsigned int sequence)
{
    return static_cast<std::uint8_t>((sequence + 1U) & kSequenceMask);
}

} // namespace

constexpr SDataLink::tCrcTable SDataLink::initCrcTable()
{
    constexpr unsigned int kPolynomial = 0x1021;
    tCrcTable table{};
    for (unsigned int i = 0; i < table.size(); ++i) {
        unsigned int crc = i << 8U;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000U) != 0 ? (crc << 1U) ^ kPolynomial : crc << 1U;
        table[i] = static_cast<std::uint16_t>(crc & 0xFFFFU);
    }
    return table;
}

constinit const SDataLink::tCrcTable SDataLink::smCrcTable = initCrcTable();

SDataLink::SDataLink(std::function<void()> onIdle)
    : mOnIdle(std::move(onIdle))
    , mpFrame(std::make_unique<SFrame>())
{}

SDataLink::~SDataLink()
{
    if (!mHasReplyThread)
        return;
    mWritten.wait();
    mEnding = true;
    mGiven.post();
    pthread_join(mReplyThread, nullptr);
}

bool SDataLink::init()
{
    return mpFrame->init();
}

bool SDataLink::read(tBytes& msg)
{
    while (awaitFrame(msg)) {
        if (checkRecvFrame(msg) == eReadMessage)
            return true;
        msg.clear();
        if (msg.capacity() > kKeptCapacity)
            msg.shrink_to_fit();
    }
    return false;
}

int SDataLink::tryRead(tBytes& msg)
{
    return awaitFrame(msg) ? checkRecvFrame(msg) : eReadBroken;
}

bool SDataLink::awaitFrame(tBytes& msg)
{
    while (!mpFrame->readSFrame(msg)) {
        if (mpFrame->isBroken())
            return false;
        if (mOnIdle)
            mOnIdle();
    }
    return true;
}

int SDataLink::checkRecvFrame(tBytes& frame)
{
    if (frame.size() < kMinFrame)
        return answerHandled(false);
    if (!checkRecvCrc(frame)) {
        logErr({"SDataLink::tryRead: crc check failed"});
        return answerHandled(true);
    }
    const auto sequence = static_cast<std::uint8_t>(frame[0] & kSequenceMask);
    if ((frame[0] & kResetFlag) != 0) {
        mSequence = sequence;
        mSynchronised = true;
    } else if (!mSynchronised) {
        return answerHandled(false);
    } else if (mSequence == following(sequence)) {
        return answerHandled(true); // QV repeats its request: our reply was lost
    } else if (sequence != mSequence) {
        return answerHandled(false);
    }
    frame.erase(frame.begin());
    return eReadMessage;
}

int SDataLink::answerHandled(bool resend)
{
    if (resend)
        reply(true, nullptr);
    else
        sendResetFrame();
    return eReadHandled;
}

void SDataLink::reply(std::unique_ptr<tBytes> payload)
{
    mSequence = following(mSequence);
    const std::uint8_t reset = std::exchange(mResetPending, false) ? kResetFlag : 0;
    payload->insert(payload->begin(), 1, static_cast<unsigned char>(mSequence | reset));
    const unsigned int crc = calcCrc16(payload.get());
    payload->push_back(static_cast<unsigned char>(crc >> 8U));
    payload->push_back(static_cast<unsigned char>(crc & 0xFFU));
    reply(false, std::move(payload));
}

void SDataLink::reply(bool resend, std::unique_ptr<tBytes> frame)
{
    if (!(resend ? mpLastReply : frame)) {
        sendResetFrame();
        return;
    }
    mWritten.wait();
    if (!resend)
        mpLastReply.swap(frame);
    if (hasReplyThread())
        mGiven.post();
    else
        writeLastReply(); // no thread to be had: the reply is worth the wait
}

/// Tries to have one: made for the first reply, or for a later one when none could be had before.
bool SDataLink::hasReplyThread()
{
    const auto entry = [](void* self) -> void* {
        static_cast<SDataLink*>(self)->writeReplies();
        return nullptr;
    };
    if (!mHasReplyThread)
        mHasReplyThread = pthread_create(&mReplyThread, nullptr, entry, this) == 0;
    return mHasReplyThread;
}

/// The reply thread.
void SDataLink::writeReplies()
{
    for (mGiven.wait(); !mEnding; mGiven.wait())
        writeLastReply();
}

void SDataLink::writeLastReply()
{
    threadedReply(mpLastReply.get());
    mWritten.post();
}

void SDataLink::threadedReply(const tBytes* frame)
{
    mpFrame->writeSFrame(frame);
}

void SDataLink::sendResetFrame()
{
    mResetPending = true;
    mSynchronised = false;
    reply(std::make_unique<tBytes>(1, static_cast<unsigned char>(0)));
}

unsigned int SDataLink::calcCrc16(const tBytes* data) const
{
    unsigned int crc = 0xFFFF;
    for (const unsigned char byte : *data)
        crc = smCrcTable[(crc >> 8U) ^ byte] ^ ((crc << 8U) & 0xFFFFU);
    return crc;
}

bool SDataLink::checkRecvCrc(tBytes& frame) const
{
    const unsigned int low = frame.back();
    frame.pop_back();
    const unsigned int high = frame.back();
    frame.pop_back();
    return calcCrc16(&frame) == (high << 8U | low);
}
