#include "sim/Timeline.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace sim;

tEvent call(const std::string& member, const std::string& arguments)
{
    tEvent event;
    event.channel = ChannelE::eSystemBus;
    event.kind = KindE::eCall;
    event.service = "sysd";
    event.member = member;
    event.arguments = arguments;
    return event;
}

TEST(Timeline, findsWhatWasAddedAndNothingElse)
{
    Timeline timeline;
    timeline.add(call("SetParamInt", "211, 0"));
    timeline.add(call("SaveConfig", ""));
    EXPECT_TRUE(timeline.find(match::call("SetParamInt", "211, 0")));
    EXPECT_FALSE(timeline.find(match::call("SetParamInt", "211, 1")));
    EXPECT_FALSE(timeline.find(match::call("SetParamInt").to("idle")));
    EXPECT_FALSE(timeline.find(match::signal("SetParamInt")));
    EXPECT_TRUE(timeline.find(match::call("SetParamInt").withPart("211")));
    EXPECT_EQ(timeline.count(match::call("SaveConfig")), 1U);
}

TEST(Timeline, tellsTheOrder)
{
    Timeline timeline;
    for (const char* member : {"A", "B", "C", "B"})
        timeline.add(call(member, ""));
    EXPECT_EQ(timeline.missingInOrder({match::call("A"), match::call("C"), match::call("B")}), "");
    EXPECT_EQ(timeline.missingInOrder({match::call("C"), match::call("A")}), "call *.A");
    EXPECT_EQ(timeline.missingInOrder({match::call("B"), match::call("B"), match::call("B")}), "call *.B");
}

TEST(Timeline, countsOnAfterClear)
{
    Timeline timeline;
    timeline.add(call("A", ""));
    timeline.clear();
    EXPECT_EQ(timeline.mark(), 1U);
    EXPECT_TRUE(timeline.events().empty());
    EXPECT_EQ(timeline.add(call("B", "")), 1U);
}

TEST(Timeline, waitsForAnEventOfAnotherThread)
{
    Timeline timeline;
    std::thread other([&] { timeline.add(call("Late", "")); });
    EXPECT_TRUE(timeline.waitFor(match::call("Late")));
    other.join();
    EXPECT_FALSE(timeline.waitFor(match::call("Never"), 0, milliseconds{10}));
    EXPECT_FALSE(timeline.waitFor(match::call("Late"), timeline.mark(), milliseconds{10}));
}

TEST(Timeline, takesALateAnswer)
{
    Timeline timeline;
    const auto id = timeline.add(call("Slow", ""));
    Match answered = match::call("Slow");
    answered.answered = true;
    EXPECT_FALSE(timeline.find(answered));
    std::thread other([&] { timeline.setAnswer(id, "7"); });
    const auto event = timeline.waitFor(answered);
    other.join();
    ASSERT_TRUE(event);
    EXPECT_EQ(*event->answer, "7");
}

TEST(Timeline, writesAnEventAsALine)
{
    tEvent event = call("SetCfgString", "\"K\", \"a\\xff\"");
    event.id = 3;
    event.time = milliseconds{1234};
    event.detail = "name";
    EXPECT_EQ(toText(event), "    1.234  system bus  sysd.SetCfgString(\"K\", \"a\\xff\")  [name]  ...");
    event.answer = "";
    EXPECT_EQ(toText(event), "    1.234  system bus  sysd.SetCfgString(\"K\", \"a\\xff\")  [name]  -> ok");
}

} // namespace
