#include "sim/Show.h"

#include <gtest/gtest.h>

namespace {

using namespace sim;

TEST(Show, writesAnEventAsJson)
{
    tEvent event;
    event.channel = ChannelE::eSystemBus;
    event.kind = KindE::eCall;
    event.service = "sysd";
    event.member = "SetCfgString";
    event.arguments = "\"K\", \"a\\xff\"";
    event.id = 3;
    event.time = milliseconds{1234};
    event.signature = "ss";
    event.detail = "name";
    event.answer = "";
    EXPECT_EQ(toJson(event), R"({"id":3,"us":1234000,"channel":"system bus","kind":"call","service":"sysd",)"
                             R"("member":"SetCfgString","signature":"ss","arguments":"\"K\", \"a\\xff\"",)"
                             R"("detail":"name","answer":""})");
}

TEST(Show, aLogLineWithAnyBytesIsJsonAndHarmlessOnATerminal)
{
    tEvent event;
    event.channel = ChannelE::eStdout;
    event.service = "vorlan";
    event.arguments = "QV sent \x1b]0;x\x07 and \xff";
    EXPECT_EQ(toJson(event), R"({"id":0,"us":0,"channel":"stdout","kind":"text","service":"vorlan",)"
                             R"("arguments":"QV sent \u001b]0;x\u0007 and \ufffd"})");
    EXPECT_EQ(sentence(event, false), R"(QV sent \x1B]0;x\x07 and \xFF)");
}

} // namespace
