#include "sim/Faults.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace sim;

class FaultsFixture : public ::testing::Test
{
protected:
    std::string refusal(const std::string& command)
    {
        try {
            mFaults.apply(command);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "";
    }

    /// How the system daemon answers GetNetIPv4Addr: an error's name, or the answer's types.
    std::string answer(std::uint64_t timeoutMicros = 10'000'000)
    {
        const BusPtr bus = openBus(mDevice.systemBus().address());
        BusError error;
        sd_bus_message* raw = nullptr;
        sd_bus_message* reply = nullptr;
        if (bus == nullptr ||
            sd_bus_message_new_method_call(bus.get(), &raw, "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon",
                                           "com.kelvora.sysdaemon", "GetNetIPv4Addr") < 0)
            return "no bus";
        const MessagePtr call(raw);
        if (sd_bus_call(bus.get(), raw, timeoutMicros, error.get(), &reply) < 0)
            return error.name();
        const MessagePtr owned(reply);
        return sd_bus_message_get_signature(reply, 1);
    }

    Device mDevice;
    Faults mFaults{mDevice};
};

TEST_F(FaultsFixture, makeOneMemberMisbehave)
{
    EXPECT_EQ(answer(), "s");
    mFaults.apply("sysd.GetNetIPv4Addr=error");
    EXPECT_EQ(answer(), "com.kelvora.Error.Simulated");
    mFaults.apply("sysd.GetNetIPv4Addr=error:com.kelvora.Error.Odd*1");
    EXPECT_EQ(answer(), "com.kelvora.Error.Odd");
    EXPECT_EQ(answer(), "s");
    mFaults.apply("sysd.GetNetIPv4Addr=wrong-type*1");
    EXPECT_EQ(answer(), "u");
    mFaults.apply("sysd.GetNetIPv4Addr=empty*1");
    EXPECT_EQ(answer(), "");
    mFaults.apply("sysd.GetNetIPv4Addr=restart*1");
    EXPECT_EQ(answer(), SD_BUS_ERROR_NO_REPLY);
    mFaults.apply("sysd=present");
    mFaults.apply("sysd.GetNetIPv4Addr=silent");
    EXPECT_EQ(answer(20'000), SD_BUS_ERROR_TIMEOUT);
    mFaults.apply("sysd.GetNetIPv4Addr=normal");
    EXPECT_EQ(answer(), "s");
}

TEST_F(FaultsFixture, makeAWholeServiceMisbehave)
{
    mFaults.apply("sysd=error");
    EXPECT_EQ(answer(), "com.kelvora.Error.Simulated");
    mFaults.apply("sysd=absent");
    EXPECT_EQ(answer(), SD_BUS_ERROR_SERVICE_UNKNOWN);
    mFaults.apply("sysd=normal");
    EXPECT_EQ(answer(), "s");
    mFaults.apply("sysd=crash");
    EXPECT_EQ(answer(), SD_BUS_ERROR_SERVICE_UNKNOWN);
    mFaults.apply("sysd=late:1");
    const auto end = Clock::now() + kDeadline;
    while (!mDevice.sysd().present() && Clock::now() < end)
        std::this_thread::yield();
    EXPECT_EQ(answer(), "s");
}

TEST_F(FaultsFixture, loseABusAndFindItAgain)
{
    mFaults.apply("system-bus=absent");
    EXPECT_EQ(answer(), "no bus");
    mFaults.apply("system-bus=normal");
    EXPECT_EQ(answer(), "s");
    mFaults.apply("user-bus=absent");
    EXPECT_FALSE(mDevice.logo().present());
    mFaults.apply("user-bus=normal");
    EXPECT_TRUE(mDevice.logo().present());
}

TEST_F(FaultsFixture, hangUpTheLine)
{
    mFaults.apply("line=hangup");
    EXPECT_EQ(mDevice.line().master(), -1);
    mFaults.apply("line=normal");
    EXPECT_GE(mDevice.line().master(), 0);
}

TEST_F(FaultsFixture, explainWhatCannotBeUnderstood)
{
    EXPECT_NE(refusal("nonsense").find("no '='"), std::string::npos);
    EXPECT_NE(refusal("clock=absent").find("there is no 'clock'"), std::string::npos);
    EXPECT_NE(refusal("logo.Stop=error").find("logo has no 'Stop'; it has Start"), std::string::npos);
    EXPECT_NE(refusal("sysd.Beep=odd").find("'odd' is nothing"), std::string::npos);
    EXPECT_NE(refusal("sysd.Beep=error:x").find("'x' is no error name"), std::string::npos);
    EXPECT_NE(refusal("sysd.Beep=slow:soon").find("'soon' is no number"), std::string::npos);
    EXPECT_NE(refusal("sysd.Beep=error*many").find("'many' is no number"), std::string::npos);
    EXPECT_NE(refusal("line=silent").find("line=hangup"), std::string::npos);
    EXPECT_NE(refusal("logo.Finished=absent").find("the logos can"), std::string::npos);
    EXPECT_NE(refusal("user-bus=slow:3").find("user-bus=absent"), std::string::npos);
}

TEST_F(FaultsFixture, knowEveryTarget)
{
    const auto targets = mFaults.targets();
    for (const char* target :
         {"idle.SetTextMsg", "line", "logo.Finished", "sysd", "sysd.ConfigureNetIf", "sysd.Ready", "user-bus"})
        EXPECT_TRUE(std::find(targets.begin(), targets.end(), target) != targets.end()) << target;
}

} // namespace
