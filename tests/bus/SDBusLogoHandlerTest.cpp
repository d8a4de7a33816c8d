#include "dbus/SDBusLogoHandler.h"

#include "tests/bus/BusFault.h"
#include "tests/bus/BusTest.h"

#include <cerrno>
#include <cstdlib>
#include <future>

using sim::milliseconds;
using sim::tBehaviour;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// A logo handler's client whose run() is under way on a thread of its own, with the logos started.
class RunningLogos
{
public:
    explicit RunningLogos(sim::Timeline& timeline)
    {
        const std::size_t from = timeline.mark();
        mResult = std::async(std::launch::async, [this] { return mHandler.run(); });
        EXPECT_TRUE(timeline.waitFor(sim::match::call("Start").to("logo"), from));
    }
    RunningLogos(const RunningLogos&) = delete;
    RunningLogos& operator=(const RunningLogos&) = delete;
    ~RunningLogos() { mHandler.stop(false); }

    /// Returns when run() waits for Finished: it is only then that its connection answers others.
    static void waitUntilItListens(const sim::PrivateBus& busDaemon)
    {
        const sim::BusPtr bus = sim::openBus(busDaemon.address());
        char** names = nullptr;
        ASSERT_GE(sd_bus_list_names(bus.get(), &names, nullptr), 0);
        for (char** name = names; *name != nullptr; ++name) {
            if (**name == ':')
                sd_bus_call_method(bus.get(), *name, "/", "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                   nullptr);
            free(*name);
        }
        free(names);
    }

    bool hasEnded(milliseconds deadline = sim::kDeadline)
    {
        return mResult.wait_for(deadline) == std::future_status::ready;
    }
    bool result() { return mResult.get(); }
    void stop(bool result) { mHandler.stop(result); }

private:
    SDBusLogoHandler mHandler;
    std::future<bool> mResult;
};

class SDBusLogoHandlerTest : public BusTest
{
protected:
    explicit SDBusLogoHandlerTest(const char* callTimeOut = kPatient)
        : BusTest(callTimeOut)
    {}

    /// Sends a signal as any program on the bus can.
    template <class... Args>
    void emit(const char* interface, const char* member, const char* types, Args... args)
    {
        const sim::BusPtr bus = sim::openBus(mDevice.userBus().address());
        EXPECT_GE(sd_bus_emit_signal(bus.get(), "/anywhere", interface, member, types, args...), 0);
        EXPECT_GE(sd_bus_flush(bus.get()), 0);
    }
};

class HastySDBusLogoHandlerTest : public SDBusLogoHandlerTest
{
protected:
    HastySDBusLogoHandlerTest()
        : SDBusLogoHandlerTest(kHasty)
    {}
};

} // namespace

TEST_F(SDBusLogoHandlerTest, finishedWithTrueEndsWithTrue)
{
    SDBusLogoHandler handler;
    EXPECT_TRUE(handler.run());
    EXPECT_THAT(calls(), ElementsAre("logo.Start"));
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, finishedWithFalseEndsWithFalse)
{
    SDBusLogoHandler handler;
    mDevice.logo().setResult(false);
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mDevice.timeline().count(sim::match::signal("Finished")), 1U);
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, finishedWithAnotherTypeEndsWithFalse)
{
    SDBusLogoHandler handler;
    mDevice.logo().setWrongType(true);
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mDevice.timeline().count(sim::match::signal("Finished")), 1U);
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, finishedWithoutAnArgumentEndsWithFalse)
{
    mDevice.logo().setDuration({});
    RunningLogos logos(mDevice.timeline());
    emit("com.kelvora.logohandler", "Finished", nullptr);
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_FALSE(logos.result());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, waitsUntilFinishedComesAndMindsNoOtherSignal)
{
    mDevice.logo().setDuration({});
    RunningLogos logos(mDevice.timeline());
    emit("com.kelvora.logohandler", "Progress", "b", 0);
    emit("com.kelvora.other", "Finished", "b", 0);
    // two turns of half a second go by without it
    EXPECT_FALSE(logos.hasEnded(milliseconds{1100}));
    mDevice.logo().finish();
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_TRUE(logos.result());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, finishedBeforeTheAnswerOfStartCounts)
{
    mDevice.logo().setDuration({});
    mDevice.logo().setBehaviour("Start", tBehaviour::delayed(milliseconds{200}));
    RunningLogos logos(mDevice.timeline());
    mDevice.logo().finish();
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_TRUE(logos.result());
}

TEST_F(SDBusLogoHandlerTest, canBeRunBySeveralObjectsOneAfterTheOther)
{
    for (const bool expected : {true, false, true}) {
        SDBusLogoHandler handler;
        mDevice.logo().setResult(expected);
        EXPECT_EQ(handler.run(), expected);
    }
    EXPECT_THAT(calls(), ElementsAre("logo.Start", "logo.Start", "logo.Start"));
}

// ---- What keeps the logos from being started

TEST_F(SDBusLogoHandlerTest, noUserBus)
{
    mDevice.stopUserBus();
    {
        SDBusLogoHandler handler;
        EXPECT_FALSE(handler.run());
    }
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to open user dbus: Connection refused\n");
    mStderr.clear();
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_THAT(mStderr.writes(),
                ElementsAre("SDBusLogoHandler: Failed to open user dbus: No such file or directory\n"));
}

TEST_F(SDBusLogoHandlerTest, signalCannotBeMatched)
{
    SDBusLogoHandler handler;
    const BusFault fault("sd_bus_message_append", -ENOMEM);
    EXPECT_FALSE(handler.run());
    EXPECT_THAT(mStderr.writes(),
                ElementsAre("SDBusLogoHandler: Failed to match signal for Finished: Cannot allocate memory\n"));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(SDBusLogoHandlerTest, logoHandlerIsNotOnTheBus)
{
    mDevice.logo().goAway();
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_THAT(mStderr.writes(), ElementsAre("SDBusLogoHandler: Failed to start logohandler: No route to host\n"));
}

TEST_F(SDBusLogoHandlerTest, startIsAnsweredWithAnError)
{
    mDevice.logo().setBehaviour("Start", tBehaviour::error());
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to start logohandler: Input/output error\n");
}

TEST_F(SDBusLogoHandlerTest, StartIsAnsweredWithAnErrorThatSaysCancelled)
{
    mDevice.logo().setBehaviour("Start", tBehaviour::error("System.Error.ECANCELED"));
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to start logohandler: Operation canceled\n");
}

TEST_F(HastySDBusLogoHandlerTest, startIsNotAnswered)
{
    mDevice.logo().setBehaviour("Start", tBehaviour::silent());
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to start logohandler: Connection timed out\n");
}

TEST_F(SDBusLogoHandlerTest, logoHandlerDiesInStart)
{
    mDevice.logo().setBehaviour("Start", tBehaviour::crash());
    SDBusLogoHandler handler;
    EXPECT_FALSE(handler.run());
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to start logohandler: Connection timed out\n");
}

TEST_F(SDBusLogoHandlerTest, BusIsLostInStart)
{
    mDevice.logo().setBehaviour("Start", tBehaviour::silent());
    RunningLogos logos(mDevice.timeline());
    mDevice.stopUserBus();
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_FALSE(logos.result());
    EXPECT_EQ(mStderr.text(), "SDBusLogoHandler: Failed to start logohandler: Connection reset by peer\n");
}

// ---- Stop

TEST_F(SDBusLogoHandlerTest, stopFromAnotherThreadEndsItWithThatResult)
{
    mDevice.logo().setDuration({});
    for (const bool expected : {true, false}) {
        RunningLogos logos(mDevice.timeline());
        logos.stop(expected);
        ASSERT_TRUE(logos.hasEnded());
        EXPECT_EQ(logos.result(), expected);
    }
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(SDBusLogoHandlerTest, stopBeforeRunIsRemembered)
{
    mDevice.logo().setDuration({});
    SDBusLogoHandler handler;
    handler.stop(true);
    EXPECT_TRUE(handler.run());
    EXPECT_THAT(calls(), IsEmpty());
}

// ---- The bus is lost while it waits

TEST_F(SDBusLogoHandlerTest, ALostBusEndsItWithOneLineAndFalse)
{
    mDevice.logo().setDuration({});
    RunningLogos logos(mDevice.timeline());
    logos.waitUntilItListens(mDevice.userBus());
    mDevice.stopUserBus();
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_FALSE(logos.result());
    // it listens while it waits for the answer to Start, too
    EXPECT_THAT(mStderr.writes(), ElementsAre(::testing::AnyOf(
                                      "Failed to process bus: Connection reset by peer\n",
                                      "SDBusLogoHandler: Failed to start logohandler: Connection reset by peer\n")));
}

TEST_F(SDBusLogoHandlerTest, ALogoHandlerThatLeavesTheBusEndsItWithOneLineAndFalse)
{
    mDevice.logo().setDuration({});
    RunningLogos logos(mDevice.timeline());
    mDevice.logo().crash();
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_FALSE(logos.result());
    EXPECT_THAT(mStderr.writes(), ElementsAre("Failed to process bus: Owner died\n"));
}

TEST_F(SDBusLogoHandlerTest, ASignalOfAStrangerDoesNotTellThatTheLogoHandlerLeft)
{
    mDevice.logo().setDuration({});
    RunningLogos logos(mDevice.timeline());
    emit("org.freedesktop.DBus", "NameOwnerChanged", "sss", "com.kelvora.logohandler", ":1.1", "");
    emit("com.kelvora.logohandler", "Finished", "b", 1); // read after it
    ASSERT_TRUE(logos.hasEnded());
    EXPECT_TRUE(logos.result());
    EXPECT_EQ(mStderr.text(), "");
}
