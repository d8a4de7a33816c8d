// Whether a request's line comes before its reply or behind it. The port writes a line of its own for each reply, to
// the stream that is looked at, on the thread that handles the request: the two lines stand there in their order.

#include "os/Log.h"
#include "protocol/Wire.h"
#include "tests/support/NoMoreThreads.h"
#include "tests/unit/protocol/OnController.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Bytes = qv::Bytes;

enum StreamE
{
    eOut,
    eErr
};

std::string reply(unsigned int status)
{
    return "reply " + std::to_string(status) + "\n";
}

/// What stands in the stream when the last of the messages has been handled: of this one only.
std::string linesOf(StreamE stream, const std::vector<Bytes>& messages)
{
    std::string out;
    std::string err;
    const auto test = [&](Vorlan& vorlan) {
        const NoMoreThreads guard; // whoever replies writes the reply
        for (Bytes message : messages) {
            testing::internal::CaptureStdout();
            testing::internal::CaptureStderr();
            vorlan.parse(message);
            out = testing::internal::GetCapturedStdout();
            err = testing::internal::GetCapturedStderr();
        }
    };
    onController(test, [](const Bytes& reply) {
        const std::string status = std::to_string(reply.at(0));
        logOut({"reply ", status});
        logErr({"reply ", status});
    });
    return controllersLines(stream == eOut ? out : err);
}

} // namespace

TEST(LogOrder, AnUnknownCommandIsLoggedBehindItsReply)
{
    EXPECT_EQ(linesOf(eErr, {{0x07, 0x00}}), reply(0x87) + "Vorlan: unknown cmd detected: 7\n");
}

TEST(LogOrder, AnUnknownMethodIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eErr, {{wire::eCmdCall, 13}}), "Vorlan: unknown methodID detected: 13\n" + reply(0x82));
}

TEST(LogOrder, ApplyConfigIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eOut, {{wire::eCmdCall, wire::eMethodApplyConfig}}), "Vorlan: ApplyConfig\n" + reply(0x02));
}

TEST(LogOrder, TheRawBrightnessIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eOut, {{wire::eCmdReadReg, wire::eRegRdDispBrightnessRaw}}),
              "Vorlan: readReg eRegRdDispBrightnessRaw 200\n" + reply(0x00));
}

TEST(LogOrder, TheProtocolVersionIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eOut, {{wire::eCmdWriteReg, wire::eRegWrQVProtVersion, 9}}),
              "Vorlan: writeReg eRegWrQVProtVersion 9\n" + reply(0x01));
}

TEST(LogOrder, AWriteToAnUnknownAddressIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eErr, {{wire::eCmdWriteReg, 7, 9}}),
              "Vorlan: unknown address for register write detected: 7\n" + reply(0x81));
}

TEST(LogOrder, TheConfiguredInterfaceIsLoggedBeforeItsReply)
{
    EXPECT_EQ(linesOf(eErr, {{wire::eCmdCall, wire::eMethodApplyConfig}, {wire::eCmdCall, wire::eMethodSetNetworkCfg}}),
              "Vorlan: setNetworkCfg: ETHInternal: eth0\n" + reply(0x02));
}
