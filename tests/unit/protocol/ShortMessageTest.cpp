// Messages handed to the dispatcher as they are: too short for the line, where a frame holds at least two bytes of
// payload, or with an effect that only this process can see.

#include "core/VorlanCfg.h"
#include "tests/unit/protocol/OnController.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

using testing::ElementsAre;

namespace {

std::vector<int> sHandled; ///< signals for which a handler was set

} // namespace

// The linker leads signal() to here.
sighandler_t realSignal(int number, sighandler_t handler) asm("__real_signal");
sighandler_t recordedSignal(int number, sighandler_t handler) asm("__wrap_signal");

sighandler_t recordedSignal(int number, sighandler_t handler)
{
    sHandled.push_back(number);
    return realSignal(number, handler);
}

namespace {

using Bytes = qv::Bytes;

struct tOutcome
{
    bool accepted = false;
    std::string thrown; ///< the exception's text, and whether the request loop goes on
    std::vector<Bytes> replies;
    std::string err;
    std::size_t starts = 0; ///< of the visualisation
};

/// Messages handed to a fresh dispatcher as they are; accepted is what it says of the last one.
tOutcome dispatchedInTurn(std::vector<Bytes> messages)
{
    auto& timeline = busesOfControllers().timeline();
    const std::size_t from = timeline.mark();
    tOutcome outcome;
    const auto test = [&](Vorlan& vorlan) {
        testing::internal::CaptureStderr();
        try {
            for (Bytes& message : messages)
                outcome.accepted = vorlan.parse(message);
        } catch (const VorlanException& e) {
            outcome.thrown = std::string(e.what()) + (e.keepRunning != 0 ? " on" : " end");
        }
        outcome.err = controllersLines(testing::internal::GetCapturedStderr());
    };
    onController(test, [&](const Bytes& reply) { outcome.replies.push_back(reply); });
    outcome.replies.pop_back();
    outcome.starts = timeline.count(sim::match::call("ConfigureNetwork"), from);
    return outcome;
}

tOutcome dispatched(const Bytes& message)
{
    return dispatchedInTurn({message});
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

TEST(DispatchedMessage, TheStartOfAnUpdateEndsTheRequestLoop)
{
    const tOutcome outcome = dispatched({0x02, 0x04});
    EXPECT_EQ("Updating... end", outcome.thrown);
    EXPECT_THAT(outcome.replies, ElementsAre(Bytes{0x02}));
}

TEST(DispatchedMessage, TheControllerAsksForThreeSignals)
{
    sHandled.clear();
    const Vorlan vorlan;
    EXPECT_THAT(sHandled, ElementsAre(SIGTERM, SIGKILL, SIGUSR1));
}

TEST(StoredValues, AreThoseOfTheLastAcceptedWrite)
{
    const auto cfg = VorlanCfg::cfg();
    EXPECT_TRUE(dispatched({0x01, 0x00, 7}).accepted);
    EXPECT_EQ(7, cfg->QVProtVersion);
    EXPECT_FALSE(dispatched({0x01, 0x00, 8, 0}).accepted);
    EXPECT_EQ(7, cfg->QVProtVersion);
    EXPECT_TRUE(dispatched({0x01, 0x03, 'o', 'n', 'e', 0}).accepted);
    EXPECT_TRUE(dispatched({0x01, 0x04, 't', 'w', 'o', 0}).accepted);
    EXPECT_FALSE(dispatched({0x01, 0x04, 'c', 'u', 't'}).accepted);
    EXPECT_EQ("one", cfg->QVText1);
    EXPECT_EQ("two", cfg->QVText2);
}

TEST(StoredValues, AStatusThatIsStoredAlreadyDoesNotEvenTryToStart)
{
    const std::vector<Bytes> start = {{0x02, 0x00, 0, 0, 0, 12, 1, 6, 24, 0},
                                      {0x01, 0x02, '1', '0', '.', '0', '.', '0', '.', '5', 0},
                                      {0x02, 0x03},
                                      {0x01, 0x01, 4}};
    const auto cfg = VorlanCfg::cfg();
    for (const unsigned int stored : {4U, 0U}) {
        cfg->StatusQV = stored;
        cfg->IpAddrQV.set("");
        const tOutcome outcome = dispatchedInTurn(start);
        EXPECT_TRUE(outcome.accepted);
        EXPECT_EQ(stored == 4 ? 0U : 1U, outcome.starts);
        EXPECT_EQ(4U, cfg->StatusQV);
    }
}
