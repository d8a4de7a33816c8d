// Messages that are too short to come over the line, where a frame holds at least two bytes of payload.

#include "core/Vorlan.h"
#include "link/SManager.h"
#include "qv/Frame.h"
#include "sim/Device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;

namespace {

using Bytes = qv::Bytes;

/// A line without a cable: the link controller's first read runs the test on its thread, then one frame comes, after
/// which the controller stops.
class ScriptedLine : public SerialIf
{
public:
    explicit ScriptedLine(std::function<void()> test)
        : mTest(std::move(test))
    {}

    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }

    int readBlocking(unsigned char* buf, unsigned int, int) override
    {
        mTest();
        sRunning = false;
        const Bytes wire = qv::toWire(qv::buildFrame(qv::kResetFlag, Bytes{0, 0}));
        std::ranges::copy(wire, buf);
        return static_cast<int>(wire.size());
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        const std::lock_guard lock(mMutex);
        mReplies.push_back(qv::parseWire({buf, len - 1}).payload);
        return static_cast<int>(len);
    }

    /// The payloads sent, without the answer to the frame at the end.
    std::vector<Bytes> replies() const
    {
        const std::lock_guard lock(mMutex);
        return {mReplies.begin(), mReplies.end() - 1};
    }

private:
    std::function<void()> mTest;
    mutable std::mutex mMutex;
    std::vector<Bytes> mReplies;
};

struct tOutcome
{
    bool accepted = false;
    std::vector<Bytes> replies;
    std::string err;
};

/// Without the lines of the status service, which come from its own thread when they like.
std::string controllersLines(const std::string& err)
{
    std::istringstream lines(err);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("SDBusManager: "))
            out += line + "\n";
    }
    return out;
}

/// One message handed to the dispatcher as it is.
tOutcome dispatched(Bytes message)
{
    static sim::Device device;
    device.useInThisProcess();
    sRunning = true;
    tOutcome outcome;
    ScriptedLine* line = nullptr;
    {
        Vorlan vorlan;
        line = new ScriptedLine([&] {
            testing::internal::CaptureStderr();
            outcome.accepted = vorlan.parse(message);
            outcome.err = controllersLines(testing::internal::GetCapturedStderr());
        });
        SManager::registerSerialBackend(line);
        vorlan.init();
        vorlan.setSerialCfg("", 115200);
        vorlan.run();
    }
    outcome.replies = line->replies();
    return outcome;
}

} // namespace

TEST(ShortMessage, AMethodCallWithoutAMethodIsRefusedWithoutALine)
{
    const tOutcome outcome = dispatched({0x02});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.replies, ElementsAre(Bytes{0x82}));
    EXPECT_EQ("", outcome.err);
}

TEST(ShortMessage, AnUnknownCommandIsRefusedWithItsWholeByteInTheLog)
{
    const tOutcome low = dispatched({0x07});
    EXPECT_FALSE(low.accepted);
    EXPECT_THAT(low.replies, ElementsAre(Bytes{0x87}));
    EXPECT_EQ("Vorlan: unknown cmd detected: 7\n", low.err);

    const tOutcome high = dispatched({0xF7});
    EXPECT_FALSE(high.accepted);
    EXPECT_THAT(high.replies, ElementsAre(Bytes{0x87}));
    EXPECT_EQ("Vorlan: unknown cmd detected: 247\n", high.err);
}

TEST(ShortMessage, ARegisterRequestWithoutAnAddressIsAnUnknownCommand)
{
    const tOutcome read = dispatched({0x00});
    EXPECT_FALSE(read.accepted);
    EXPECT_THAT(read.replies, ElementsAre(Bytes{0x80}));

    const tOutcome write = dispatched({0x01});
    EXPECT_FALSE(write.accepted);
    EXPECT_THAT(write.replies, ElementsAre(Bytes{0x81}));
}

TEST(ShortMessage, AnEmptyMessageIsAnUnknownCommand)
{
    const tOutcome outcome = dispatched({});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.replies, ElementsAre(Bytes{0x80}));
    EXPECT_EQ("Vorlan: unknown cmd detected: 0\n", outcome.err);
}

TEST(ShortMessage, WhatIsAcceptedSaysSo)
{
    const tOutcome outcome = dispatched({0x00, 0x01});
    EXPECT_TRUE(outcome.accepted);
    EXPECT_THAT(outcome.replies, ElementsAre(Bytes{0x00, 0x00}));
}

TEST(ShortMessage, AReadOfAnUnknownAddressSaysSoAndGetsNoReply)
{
    const tOutcome outcome = dispatched({0x00, 0x0A});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_TRUE(outcome.replies.empty());
}
