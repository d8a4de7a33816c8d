#include "sim/Device.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace sim;

struct tAnswer
{
    int result = 0;
    std::string error;
    std::string signature;
    MessagePtr message;
};

constexpr std::uint64_t kShort = 50'000;
constexpr std::uint64_t kLong = 10'000'000;

/// A connection that asks as the daemon does.
class Asker
{
public:
    Asker(const PrivateBus& bus, std::string name, std::string path, std::string interface)
        : mBus(openBus(bus.address()))
        , mName(std::move(name))
        , mPath(std::move(path))
        , mInterface(std::move(interface))
    {}

    template <class... Arguments>
    tAnswer ask(std::uint64_t timeout, const char* member, const char* types, Arguments... arguments)
    {
        sd_bus_message* raw = nullptr;
        EXPECT_GE(
            sd_bus_message_new_method_call(mBus.get(), &raw, mName.c_str(), mPath.c_str(), mInterface.c_str(), member),
            0);
        const MessagePtr call(raw);
        if constexpr (sizeof...(arguments) > 0) {
            EXPECT_GE(sd_bus_message_append(raw, types, arguments...), 0);
        }
        BusError error;
        sd_bus_message* reply = nullptr;
        tAnswer answer;
        answer.result = sd_bus_call(mBus.get(), raw, timeout, error.get(), &reply);
        answer.error = error.name();
        answer.message.reset(reply);
        if (reply != nullptr)
            answer.signature = sd_bus_message_get_signature(reply, 1);
        return answer;
    }

    template <class... Arguments>
    tAnswer operator()(const char* member, const char* types = "", Arguments... arguments)
    {
        return ask(kLong, member, types, arguments...);
    }

    int number(const char* member, unsigned parameter)
    {
        const tAnswer answer = (*this)(member, "u", parameter);
        int out = -1;
        EXPECT_GT(sd_bus_message_read_basic(answer.message.get(), answer.signature.at(0), &out), 0);
        return out;
    }

    sd_bus* bus() { return mBus.get(); }

private:
    BusPtr mBus;
    std::string mName;
    std::string mPath;
    std::string mInterface;
};

class StandIn : public ::testing::Test
{
protected:
    Device mDevice;
    Asker mSysd{mDevice.systemBus(), "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon", "com.kelvora.sysdaemon"};
    Asker mLogo{mDevice.userBus(), "com.kelvora.logohandler", "/com/kelvora/logohandler", "com.kelvora.logohandler"};
    Asker mIdle{mDevice.userBus(), "com.kelvora.IdleApp", "/com/kelvora/IdleApp", "com.kelvora.IdleApp"};
};

TEST_F(StandIn, keepsParametersByNumberAndType)
{
    EXPECT_EQ(mSysd.number("GetParamInt", 24), 0);
    EXPECT_GE(mSysd("SetParamInt", "ui", 24U, 90).result, 0);
    EXPECT_EQ(mSysd.number("GetParamInt", 24), 90);
    EXPECT_EQ(mDevice.sysd().param(24), SysDaemon::Value(90));
    EXPECT_EQ(mSysd("GetParamString", "u", 24U).error, "com.kelvora.sysdaemon.Error.WrongType");
    EXPECT_EQ(mSysd("GetParamInt", "u", 9999U).error, "com.kelvora.sysdaemon.Error.NoSuchParameter");
    EXPECT_EQ(mSysd("SetParamInt", "ui", 9999U, 1).error, "com.kelvora.sysdaemon.Error.NoSuchParameter");
    EXPECT_EQ(mSysd("GetParamInt", "s", "24").error, SD_BUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(mSysd("NoSuchMember").error, SD_BUS_ERROR_UNKNOWN_METHOD);
    EXPECT_TRUE(mDevice.timeline().find(match::call("SetParamInt", "24, 90").to("sysd").on(ChannelE::eSystemBus)));
}

TEST_F(StandIn, readsARegisteredNameThatIsNotSet)
{
    EXPECT_EQ(mSysd("GetCfgString", "s", "UpdatePath").error, "com.kelvora.sysdaemon.Error.NoSuchKey");
    EXPECT_GE(mSysd("AddCfgVar", "s", "UpdatePath").result, 0);
    const tAnswer unset = mSysd("GetCfgString", "s", "UpdatePath");
    const char* text = nullptr;
    ASSERT_GT(sd_bus_message_read(unset.message.get(), "s", &text), 0);
    EXPECT_STREQ(text, "");
    EXPECT_GE(mSysd("SetCfgString", "ss", "UpdatePath", "/media/usb").result, 0);
    EXPECT_GE(mSysd("AddCfgVar", "s", "UpdatePath").result, 0);
    EXPECT_EQ(mDevice.sysd().cfg("UpdatePath"), SysDaemon::CfgValue(std::string("/media/usb")));
}

TEST_F(StandIn, recordsACallBeforeItsAnswer)
{
    mSysd("SaveConfig");
    const auto event = mDevice.timeline().find(match::call("SaveConfig"));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->answer, "");
    EXPECT_EQ(event->arguments, "");
}

TEST_F(StandIn, recordsADictionaryInItsOrder)
{
    sd_bus_message* raw = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(mSysd.bus(), &raw, "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon",
                                             "com.kelvora.sysdaemon", "ConfigureNetIf"),
              0);
    const MessagePtr call(raw);
    ASSERT_GE(sd_bus_message_append(raw, "sa{sv}", "eth0", 3, "Mode", "s", "static", "Gateway", "s", "", "DnsActivated",
                                    "b", 1),
              0);
    BusError error;
    ASSERT_GE(sd_bus_call(mSysd.bus(), raw, 0, error.get(), nullptr), 0) << error.text();
    const auto event = mDevice.timeline().find(match::call("ConfigureNetIf"));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->arguments, R"("eth0", {"Mode": "static", "Gateway": "", "DnsActivated": true})");
    EXPECT_EQ(event->signature, "sa{sv}");
}

TEST_F(StandIn, answersTheReadyProperty)
{
    const auto ready = [&] {
        int value = -1;
        return sd_bus_get_property_trivial(mSysd.bus(), "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon",
                                           "com.kelvora.sysdaemon", "Ready", nullptr, 'b', &value) < 0
                   ? -1
                   : value;
    };
    EXPECT_EQ(ready(), 1);
    mDevice.sysd().setReady(false);
    EXPECT_EQ(ready(), 0);
    mDevice.sysd().setBehaviour("Ready", tBehaviour::wrongType());
    EXPECT_EQ(ready(), -1);
    mDevice.sysd().setBehaviour("Ready", tBehaviour::error());
    EXPECT_EQ(ready(), -1);
    EXPECT_EQ(mDevice.timeline().count(match::call("Ready")), 4U);
}

TEST_F(StandIn, failsAsOftenAsItIsTold)
{
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::error("com.kelvora.Error.Odd").times(2));
    EXPECT_EQ(mSysd("GetParamInt", "u", 24U).error, "com.kelvora.Error.Odd");
    EXPECT_EQ(mSysd("GetParamInt", "u", 24U).error, "com.kelvora.Error.Odd");
    EXPECT_EQ(mSysd("GetParamInt", "u", 24U).error, "");
    mDevice.sysd().setBehaviour("*", tBehaviour::error());
    EXPECT_EQ(mSysd("Beep").error, "com.kelvora.Error.Simulated");
    mDevice.sysd().clearBehaviour();
    EXPECT_EQ(mSysd("Beep").error, "");
}

TEST_F(StandIn, answersWithAnotherTypeOrNothing)
{
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::wrongType());
    EXPECT_EQ(mSysd("GetParamInt", "u", 24U).signature, "s");
    mDevice.sysd().setBehaviour("GetNetIPv4Addr", tBehaviour::wrongType());
    EXPECT_EQ(mSysd("GetNetIPv4Addr").signature, "u");
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::empty());
    EXPECT_EQ(mSysd("GetParamInt", "u", 24U).signature, "");
}

TEST_F(StandIn, staysSilentWithoutDelayingOthers)
{
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::silent());
    EXPECT_EQ(mSysd.ask(kShort, "GetParamInt", "u", 24U).error, SD_BUS_ERROR_TIMEOUT);
    EXPECT_EQ(mSysd("Beep").error, "");
    EXPECT_FALSE(mDevice.timeline().find(match::call("GetParamInt"))->answer);
}

TEST_F(StandIn, answersLaterWhenToldToBeSlow)
{
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::delayed(milliseconds{200}));
    std::thread slow([&] { EXPECT_EQ(mSysd.number("GetParamInt", 26), 20); });
    EXPECT_TRUE(mDevice.timeline().waitFor(match::call("GetParamInt")));
    EXPECT_EQ(mIdle("DisableAnimation").error, "");
    slow.join();
    EXPECT_EQ(mDevice.timeline().find(match::call("GetParamInt"))->answer, "20");
}

TEST_F(StandIn, goesAwayAndComesBack)
{
    mDevice.sysd().goAway();
    EXPECT_FALSE(mDevice.sysd().present());
    EXPECT_EQ(mSysd("Beep").error, SD_BUS_ERROR_SERVICE_UNKNOWN);
    mDevice.sysd().comeBack();
    EXPECT_TRUE(mDevice.sysd().present());
    EXPECT_EQ(mSysd("Beep").error, "");
}

TEST_F(StandIn, restartsInTheMiddleOfACall)
{
    mDevice.sysd().setBehaviour("Beep", tBehaviour::crash(milliseconds{0}).times(1));
    EXPECT_EQ(mSysd("Beep").error, SD_BUS_ERROR_NO_REPLY);
    mDevice.sysd().comeBack();
    EXPECT_EQ(mSysd("Beep").error, "");
}

TEST_F(StandIn, isBackWhenItsBusIs)
{
    mDevice.idle().goAway();
    mDevice.stopSystemBus();
    mDevice.stopUserBus();
    mDevice.startSystemBus();
    mDevice.startUserBus();
    EXPECT_TRUE(mDevice.sysd().present());
    EXPECT_TRUE(mDevice.logo().present());
    EXPECT_FALSE(mDevice.idle().present());
    Asker again(mDevice.systemBus(), "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon", "com.kelvora.sysdaemon");
    EXPECT_EQ(again("Beep").error, "");
}

TEST_F(StandIn, finishesItsLogosByItselfOrWhenTold)
{
    EXPECT_EQ(mLogo("Start").error, "");
    EXPECT_TRUE(mDevice.timeline().waitFor(match::signal("Finished").with("true")));
    mDevice.logo().setDuration(std::nullopt);
    mDevice.logo().setResult(false);
    mDevice.timeline().clear();
    EXPECT_EQ(mLogo("Start").error, "");
    mDevice.logo().finish();
    EXPECT_TRUE(mDevice.timeline().find(match::signal("Finished").with("false")));
    mDevice.logo().setWrongType(true);
    mDevice.logo().finish();
    EXPECT_TRUE(mDevice.timeline().find(match::signal("Finished").withPart("not what")));
}

TEST_F(StandIn, startsAUnit)
{
    Asker systemd(mDevice.userBus(), "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                  "org.freedesktop.systemd1.Manager");
    EXPECT_EQ(systemd("StartUnit", "ss", "autoupdated.service", "replace").signature, "o");
    EXPECT_TRUE(mDevice.timeline().find(match::call("StartUnit", R"("autoupdated.service", "replace")").to("systemd")));
}

TEST_F(StandIn, isIntrospectedLikeAnyService)
{
    Asker any(mDevice.systemBus(), "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon",
              "org.freedesktop.DBus.Introspectable");
    const tAnswer answer = any("Introspect");
    const char* xml = "";
    ASSERT_GT(sd_bus_message_read(answer.message.get(), "s", &xml), 0) << answer.error;
    for (const char* part : {"ConfigureNetIf", "type=\"a{sv}\"", "GetCfgBool", "name=\"Ready\" type=\"b\""})
        EXPECT_NE(std::string(xml).find(part), std::string::npos) << part << "\n" << xml;
}

int readStatus(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* value, sd_bus_error*)
{
    return sd_bus_message_append(reply, "y", *static_cast<std::uint8_t*>(value));
}

int answerEmpty(sd_bus_message* call, void*, sd_bus_error*)
{
    return sd_bus_reply_method_return(call, "");
}

constexpr const char* kVorlan = "com.kelvora.vorlan";
constexpr const char* kVorlanPath = "/com/kelvora/vorlan";
const sd_bus_vtable kVorlanTable[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_PROPERTY("StatusQV", "y", readStatus, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_METHOD("ShowQMX", "", "", answerEmpty, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

TEST_F(StandIn, hearsTheDaemonsSignalsOnTheDesktop)
{
    EventLoop loop;
    BusPtr bus;
    std::uint8_t status = 4;
    loop.call([&] {
        bus = openBus(mDevice.userBus().address());
        sd_bus_add_object_vtable(bus.get(), nullptr, kVorlanPath, kVorlan, kVorlanTable, &status);
        sd_bus_attach_event(bus.get(), loop.event(), 0);
        EXPECT_GE(sd_bus_request_name(bus.get(), kVorlan, 0), 0);
        sd_bus_emit_properties_changed(bus.get(), kVorlanPath, kVorlan, "StatusQV", nullptr);
        sd_bus_emit_signal(bus.get(), kVorlanPath, kVorlan, "OrientationChanged", "");
    });
    Timeline& timeline = mDevice.timeline();
    Match there;
    there.kind = KindE::eOwner;
    EXPECT_TRUE(timeline.waitFor(there.with("present")));
    EXPECT_TRUE(timeline.waitFor(match::property("StatusQV", "4")));
    EXPECT_TRUE(timeline.waitFor(match::signal("OrientationChanged").with("")));

    const Desktop& desktop = mDevice.desktop();
    EXPECT_TRUE(desktop.waitForService());
    EXPECT_EQ(desktop.property("StatusQV").value, "4");
    EXPECT_EQ(desktop.property("StatusQV").signature, "y");
    EXPECT_EQ(desktop.property("Nothing").errorName, "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(desktop.allProperties(), (std::map<std::string, std::string>{{"StatusQV", "4"}}));
    EXPECT_NE(desktop.introspect().raw.find("<property name=\"StatusQV\""), std::string::npos);
    EXPECT_TRUE(desktop.showQmx().ok);
    EXPECT_FALSE(desktop.setProperty("StatusQV", "5").ok);
    loop.call([&] { bus.reset(); });
    EXPECT_TRUE(timeline.waitFor(there.with("absent")));
    EXPECT_EQ(desktop.showQmx().errorName, SD_BUS_ERROR_SERVICE_UNKNOWN);
}

} // namespace
