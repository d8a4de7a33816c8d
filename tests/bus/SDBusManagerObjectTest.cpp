// The object on the bus: its table, its properties, its signals, its method.

#include "dbus/SDBusClients.h"
#include "dbus/SDBusManagerTable.h"
#include "tests/bus/Introspection.h"
#include "tests/bus/SDBusManagerTest.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <sstream>
#include <thread>

using sim::milliseconds;
using sim::SysDaemon;
using sim::tBehaviour;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

namespace {

constexpr char kInterface[] = "com.kelvora.vorlan";

const std::vector<std::string> kMembers{
    "property AnimationEnabled b read",
    "property StatusText s read",
    "property StatusQV y read",
    "property IpAddrQV s read",
    "property ShowLogos b read",
    "property GifOffsetX i read",
    "property GifOffsetY i read",
    "property GifDelayMS i read",
    "property ShowQVStatus b read",
    "method ShowQMX",
    "signal LogosFinished",
};

using SDBusManagerObjectTest = SDBusManagerTest;

/// The announcement of one property with its new value.
SignalWatch::tSignal changed(const std::string& property, const std::string& value)
{
    return {"org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
            "\"com.kelvora.vorlan\", {\"" + property + "\": " + value + "}, []"};
}

} // namespace

// ---- The table

TEST(SDBusManagerTable, liesInItsOrderWithItsTypesAndFlags)
{
    std::vector<std::string> seen;
    const sd_bus_vtable* entry = kVorlanTable;
    EXPECT_EQ(entry->type, static_cast<decltype(entry->type)>(_SD_BUS_VTABLE_START));
    EXPECT_EQ(entry->flags, 0U);
    for (++entry; entry->type != _SD_BUS_VTABLE_END; ++entry) {
        std::string text(1, static_cast<char>(entry->type));
        if (entry->type == _SD_BUS_VTABLE_PROPERTY)
            text += std::string(" ") + entry->x.property.member + " " + entry->x.property.signature;
        else if (entry->type == _SD_BUS_VTABLE_METHOD)
            text += std::string(" ") + entry->x.method.member + " (" + entry->x.method.signature + ") -> (" +
                    entry->x.method.result + ")";
        else if (entry->type == _SD_BUS_VTABLE_SIGNAL)
            text += std::string(" ") + entry->x.signal.member + " (" + entry->x.signal.signature + ")";
        if (entry->flags == SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE)
            text += " emits-change";
        else if (entry->flags == SD_BUS_VTABLE_UNPRIVILEGED)
            text += " unprivileged";
        else if (entry->flags != 0)
            text += " flags " + std::to_string(entry->flags);
        seen.push_back(text);
    }
    EXPECT_THAT(seen,
                ElementsAre("P AnimationEnabled b emits-change", "P StatusText s emits-change",
                            "P StatusQV y emits-change", "P IpAddrQV s emits-change", "P ShowLogos b emits-change",
                            "P GifOffsetX i emits-change", "P GifOffsetY i emits-change", "P GifDelayMS i emits-change",
                            "P ShowQVStatus b emits-change", "M ShowQMX () -> () unprivileged", "S LogosFinished ()"));
}

TEST(IntrospectionText, tellsWhatDiffersAndNothingElse)
{
    const std::string xml = R"(<!DOCTYPE node PUBLIC "a" "b"> <!-- <interface name="i"> <method name="No"/> --> <node>
        <interface name="other"><method name="Other"/></interface>
        <interface name="i">
          <property type="s" name="P" access="readwrite"><annotation
             name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="true"/></property>
          <property name='Q' type='u' access='read'><annotation name="x" value="y"/></property>
          <method name="M"><arg name="a" type="s" direction="in"/><arg type="b" direction="out"/><arg type="q"/></method>
          <signal name="S"><arg type="a{sv}"/></signal><method name="N"></method><annotation name="a" value="b"/>
        </interface></node>)";
    EXPECT_THAT(membersOf(xml, "i"), ElementsAre("property P s readwrite", "property Q u read [x=y]",
                                                 "method M in:s out:b in:q", "signal S a{sv}", "method N", " [a=b]"));
}

TEST_F(SDBusManagerObjectTest, introspectionShowsNineReadOnlyPropertiesOneMethodAndOneSignal)
{
    startService();
    const auto xml = mDevice.desktop().introspect();
    ASSERT_TRUE(xml.ok) << xml.errorName;
    EXPECT_THAT(membersOf(xml.raw, kInterface), ElementsAreArray(kMembers));
    EXPECT_EQ(xml.raw.find("OrientationChanged"), std::string::npos);
}

TEST_F(SDBusManagerObjectTest, interfaceFileDocumentsExactlyTheRunningObject)
{
    std::ostringstream documented;
    documented << std::ifstream(VORLAN_INTERFACE_XML).rdbuf();
    startService();
    const auto xml = mDevice.desktop().introspect();
    ASSERT_TRUE(xml.ok) << xml.errorName;
    EXPECT_THAT(membersOf(documented.str(), kInterface), ElementsAreArray(membersOf(xml.raw, kInterface)));
    EXPECT_THAT(membersOf(documented.str(), kInterface), ElementsAreArray(kMembers));
}

// ---- Reading properties

TEST_F(SDBusManagerObjectTest, propertiesHaveTheirTypesAndTheirFirstValues)
{
    mDevice.sysd().setParam(92, false);
    mDevice.sysd().setParam(25, SysDaemon::Value(-5));
    mDevice.sysd().setParam(26, SysDaemon::Value(2147483647));
    mDevice.sysd().setParam(27, SysDaemon::Value(40));
    mDevice.sysd().setParam(210, true);
    startService();
    struct tRow
    {
        const char* name;
        const char* type;
        const char* value;
    };
    const tRow rows[] = {{"AnimationEnabled", "b", "true"},
                         {"StatusText", "s", "\"Waiting for configuration...\""},
                         {"StatusQV", "y", "0"},
                         {"IpAddrQV", "s", "\"\""},
                         {"ShowLogos", "b", "false"},
                         {"GifOffsetX", "i", "-5"},
                         {"GifOffsetY", "i", "2147483647"},
                         {"GifDelayMS", "i", "40"},
                         {"ShowQVStatus", "b", "true"}};
    for (const tRow& row : rows) {
        const auto result = mDevice.desktop().property(row.name);
        EXPECT_TRUE(result.ok) << row.name << result.errorName;
        EXPECT_EQ(result.signature, row.type) << row.name;
        EXPECT_EQ(result.value, row.value) << row.name;
    }
    std::vector<std::pair<std::string, std::string>> all;
    for (const tRow& row : rows)
        all.emplace_back(row.name, row.value);
    EXPECT_THAT(mDevice.desktop().allProperties(), ::testing::UnorderedElementsAreArray(all));
}

TEST_F(SDBusManagerObjectTest, reportedValuesAreReadAnewEachTime)
{
    startService();
    for (const bool enabled : {false, true}) {
        mCfg->AnimationEnabled = enabled;
        EXPECT_EQ(read("AnimationEnabled"), enabled ? "true" : "false");
    }
    for (const unsigned status : {1U, 4U, 255U, 0U}) {
        mCfg->StatusQV = status;
        EXPECT_EQ(read("StatusQV"), std::to_string(status));
    }
    for (const std::string text : {"one", "", "Gr\xc3\xbc\xc3\x9f"}) {
        mCfg->StatusText.set(text);
        EXPECT_EQ(read("StatusText"), '"' + text + '"');
        mCfg->IpAddrQV.set(text + "2");
        EXPECT_EQ(read("IpAddrQV"), '"' + text + "2\"");
    }
    EXPECT_THAT(calls(), IsEmpty()) << "none of these asks the system daemon";
}

TEST_F(SDBusManagerObjectTest, displaySettingsAreAskedOfTheSystemDaemonEachTime)
{
    startService();
    const std::pair<const char*, std::uint32_t> flags[] = {{"ShowLogos", 92}, {"ShowQVStatus", 210}};
    for (const auto& [name, param] : flags) {
        for (const bool value : {true, false, true}) {
            mDevice.sysd().setParam(param, value);
            const std::size_t from = mark();
            EXPECT_EQ(read(name), value ? "true" : "false");
            EXPECT_THAT(calls(from), ElementsAre("sysd.GetParamBool u " + std::to_string(param)));
        }
    }
    const std::pair<const char*, std::uint32_t> numbers[] = {
        {"GifOffsetX", 25}, {"GifOffsetY", 26}, {"GifDelayMS", 27}};
    for (const auto& [name, param] : numbers) {
        for (const int value : {7, -2147483647 - 1, 0}) {
            mDevice.sysd().setParam(param, SysDaemon::Value(value));
            const std::size_t from = mark();
            EXPECT_EQ(read(name), std::to_string(value));
            EXPECT_THAT(calls(from), ElementsAre("sysd.GetParamInt u " + std::to_string(param)));
        }
    }
}

TEST_F(SDBusManagerObjectTest, displaySettingsFallBackToFalseAndZero)
{
    mDevice.sysd().setParam(92, true);
    mDevice.sysd().setParam(25, SysDaemon::Value(7));
    startService();
    mStderr.clear();
    mDevice.sysd().setBehaviour("*", tBehaviour::error());
    EXPECT_EQ(read("ShowLogos"), "false");
    EXPECT_EQ(read("GifOffsetX"), "0");
    EXPECT_EQ(mStderr.text(), "SDBusSysD: Failed to get param: 92\nSDBusSysD: Failed to get param: 92\n"
                              "SDBusSysD: Failed to get param: 25\nSDBusSysD: Failed to get param: 25\n");
    mDevice.sysd().clearBehaviour();
    EXPECT_EQ(read("ShowLogos"), "true");
    EXPECT_EQ(read("GifOffsetX"), "7");
}

TEST_F(SDBusManagerObjectTest, noPropertyCanBeSet)
{
    startService();
    const auto before = mDevice.desktop().allProperties();
    EXPECT_THAT(before, SizeIs(9));
    for (const auto& [name, value] : before)
        EXPECT_EQ(mDevice.desktop().setProperty(name, "text").errorName, "org.freedesktop.DBus.Error.PropertyReadOnly")
            << name;
    EXPECT_EQ(mDevice.desktop().allProperties(), before);
}

TEST_F(SDBusManagerObjectTest, unknownMembersAreRefused)
{
    startService();
    EXPECT_EQ(read("NoSuchProperty"), "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(mDevice.desktop().call(kInterface, "NoSuchMethod").errorName, "org.freedesktop.DBus.Error.UnknownMethod");
}

// ---- Reads at a stop

TEST_F(SDBusManagerObjectTest, AReadThatWasAskedBeforeTheStopIsAnsweredWithItsValue)
{
    startService();
    mDevice.sysd().setBehaviour("GetParamInt", tBehaviour::held());
    const std::size_t from = mark();
    auto reading = std::async(std::launch::async, [this] { return mDevice.desktop().property("GifDelayMS"); });
    ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("GetParamInt"), from));
    mService.requestStop();
    SDBusClients::clients()->stop();
    mDevice.sysd().release();
    const auto result = reading.get();
    EXPECT_TRUE(result.ok) << result.errorName;
    EXPECT_EQ(result.value, "40");
}

TEST_F(SDBusManagerObjectTest, AReadThatCannotBeAskedAnyMoreIsRefusedAndHasNoDefault)
{
    startService();
    SDBusClients::clients()->stop();
    for (const char* name : {"ShowLogos", "GifOffsetX", "GifOffsetY", "GifDelayMS", "ShowQVStatus"})
        EXPECT_FALSE(mDevice.desktop().property(name).ok) << name;
    EXPECT_EQ(read("StatusQV"), "0"); // needs nobody
    EXPECT_FALSE(mDevice.desktop().showQmx().ok);
}

// ---- Texts that QV may send

TEST_F(SDBusManagerObjectTest, textsOfAnyKindLeaveTheConnectionAlive)
{
    startService();
    const std::size_t from = mark();
    const std::string longText(60'000, 'l');
    struct tField
    {
        const char* name;
        SharedText& text;
    };
    const tField fields[] = {{"IpAddrQV", mCfg->IpAddrQV}, {"StatusText", mCfg->StatusText}};
    for (const auto& [name, text] : fields) {
        for (const std::string bad : {"\xff", "10.0.0.5\xc3", "\xed\xa0\x80", "\xc0\x80"}) {
            text.set(bad);
            EXPECT_EQ(read(name), "org.freedesktop.DBus.Error.InvalidArgs");
            mService.emitPropChange(name);
            EXPECT_THAT(mDevice.desktop().allProperties(), IsEmpty());
            EXPECT_EQ(read("StatusQV"), "0");
            text.set("good");
            EXPECT_EQ(read(name), "\"good\"");
        }
        text.set(longText);
        EXPECT_EQ(read(name), '"' + longText + '"');
        text.set("");
        EXPECT_EQ(read(name), "\"\"");
    }
    EXPECT_THAT(mDevice.desktop().allProperties(), SizeIs(9));
    EXPECT_EQ(mDevice.timeline().count([](const sim::tEvent& event) { return event.kind == sim::KindE::eOwner; }, from),
              0U)
        << "the name was never given up";
}

TEST_F(SDBusManagerObjectTest, aChangeToTextThatIsNotUtf8IsNotAnnouncedAndTheNextOneIs)
{
    startService();
    SignalWatch watch(mDevice.userBus().address());
    mCfg->IpAddrQV.set("\xff");
    mService.emitQVIpAddr();
    mCfg->StatusText.set("\xff");
    mService.emitStatusTxt();
    mCfg->IpAddrQV.set("10.0.0.5");
    mService.emitQVIpAddr();
    EXPECT_EQ(watch.next(), changed("IpAddrQV", "\"10.0.0.5\""));
}

// ---- Announcing changes

TEST_F(SDBusManagerObjectTest, eachEmitterSendsItsSignal)
{
    mDevice.sysd().setParam(92, false);
    mDevice.sysd().setParam(210, true);
    startService();
    SignalWatch watch(mDevice.userBus().address());
    mCfg->IpAddrQV.set("10.0.0.5");
    mService.emitQVIpAddr();
    EXPECT_EQ(watch.next(), changed("IpAddrQV", "\"10.0.0.5\""));
    mCfg->StatusQV = 4;
    mService.emitQVStatus();
    EXPECT_EQ(watch.next(), changed("StatusQV", "4"));
    mCfg->AnimationEnabled = false;
    mService.emitAnimationCfg();
    EXPECT_EQ(watch.next(), changed("AnimationEnabled", "false"));
    mCfg->StatusText.set("");
    mService.emitStatusTxt();
    EXPECT_EQ(watch.next(), changed("StatusText", "\"\""));
    mService.emitShowQVStatus();
    EXPECT_EQ(watch.next(), changed("ShowQVStatus", "true"));
    mService.emitShowLogos();
    EXPECT_EQ(watch.next(), changed("ShowLogos", "false"));
    mService.emitOrientationChanged();
    EXPECT_EQ(watch.next(), (SignalWatch::tSignal{kInterface, "OrientationChanged", "", ""}));
    mService.sendLogosFinished();
    EXPECT_EQ(watch.next(), (SignalWatch::tSignal{kInterface, "LogosFinished", "", ""}));
}

TEST_F(SDBusManagerObjectTest, anyPropertyCanBeAnnouncedByItsName)
{
    startService();
    SignalWatch watch(mDevice.userBus().address());
    for (const auto& [name, value] : mDevice.desktop().allProperties()) {
        mService.emitPropChange(name);
        EXPECT_EQ(watch.next(), changed(name, value));
    }
    mService.emitPropChange("NoSuchProperty");
    mService.sendLogosFinished();
    EXPECT_EQ(watch.next().member, "LogosFinished") << "an unknown property is not announced";
}

TEST_F(SDBusManagerObjectTest, aChangeIsAnnouncedWithTheValueOfThatMoment)
{
    startService();
    SignalWatch watch(mDevice.userBus().address());
    for (unsigned status = 0; status < 256; ++status) {
        mCfg->StatusQV = status;
        mService.emitQVStatus();
    }
    mCfg->StatusQV = 7; // too late for all of them
    for (unsigned status = 0; status < 256; ++status)
        ASSERT_EQ(watch.next(), changed("StatusQV", std::to_string(status)));
}

TEST_F(SDBusManagerObjectTest, emittersNeedNoSystemDaemonButForItsOwnValues)
{
    startService();
    mDevice.sysd().goAway();
    SignalWatch watch(mDevice.userBus().address());
    mService.emitShowLogos();
    EXPECT_EQ(watch.next(), changed("ShowLogos", "false"));
    mService.emitQVStatus();
    EXPECT_EQ(watch.next(), changed("StatusQV", "0"));
}

// ---- ShowQMX

TEST_F(SDBusManagerObjectTest, showQmxStoresThePageLoadsItAndHasTheApplicationExitTwoSecondsLater)
{
    mCfg->IpAddrQV.set("10.0.0.5");
    startService();
    const std::size_t from = mark();
    const auto before = sim::Clock::now();
    const auto reply = mDevice.desktop().showQmx();
    EXPECT_TRUE(reply.ok) << reply.errorName;
    EXPECT_EQ(reply.signature, "");
    EXPECT_THAT(calls(from),
                ElementsAre("sysd.SetCfgInt si \"Startmode\", 2",
                            "sysd.SetCfgString ss \"SelectedFavoriteWeb\", \"http://10.0.0.5/qmx/index.html\"",
                            "sysd.LoadConfig"))
        << "the reply does not wait for the exit";
    ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("Exit").to("idle"), from));
    EXPECT_GE(sim::Clock::now() - before, std::chrono::seconds(2));
    EXPECT_EQ(mDevice.sysd().cfg("Startmode"), SysDaemon::CfgValue(2));
}

TEST_F(SDBusManagerObjectTest, showQmxTwiceDoesAllOfItTwice)
{
    mCfg->IpAddrQV.set("10.0.0.5");
    startService();
    const std::size_t from = mark();
    EXPECT_TRUE(mDevice.desktop().showQmx().ok);
    EXPECT_TRUE(mDevice.desktop().showQmx().ok);
    ASSERT_TRUE(mDevice.timeline().waitForCount(sim::match::call("Exit").to("idle"), 2, from));
    const std::vector<std::string> once{
        "sysd.SetCfgInt si \"Startmode\", 2",
        "sysd.SetCfgString ss \"SelectedFavoriteWeb\", \"http://10.0.0.5/qmx/index.html\"", "sysd.LoadConfig"};
    std::vector<std::string> expected = once;
    expected.insert(expected.end(), once.begin(), once.end());
    expected.insert(expected.end(), {"idle.Exit", "idle.Exit"});
    EXPECT_THAT(calls(from), ElementsAreArray(expected));
}

TEST_F(SDBusManagerObjectTest, showQmxWithoutAnAddressWritesItAsItIs)
{
    startService();
    EXPECT_TRUE(mDevice.desktop().showQmx().ok);
    EXPECT_EQ(mDevice.sysd().cfg("SelectedFavoriteWeb"), SysDaemon::CfgValue(std::string("http:///qmx/index.html")));
}

TEST_F(SDBusManagerObjectTest, aFailedStepOfShowQmxDoesNotStopTheLaterOnes)
{
    mCfg->IpAddrQV.set("10.0.0.5");
    startService();
    for (const std::string failing : {"SetCfgInt", "SetCfgString", "LoadConfig", "*"}) {
        mDevice.sysd().clearBehaviour();
        mDevice.sysd().setBehaviour(failing, tBehaviour::error());
        const std::size_t from = mark();
        EXPECT_TRUE(mDevice.desktop().showQmx().ok);
        ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("Exit").to("idle"), from));
        EXPECT_THAT(calls(from), SizeIs(4)) << failing;
    }
}

TEST_F(SDBusManagerObjectTest, showQmxWithAnAddressThatIsNotUtf8SkipsItAndGoesOn)
{
    mCfg->IpAddrQV.set("10.0.0.\xff");
    startService();
    mStderr.clear();
    const std::size_t from = mark();
    EXPECT_TRUE(mDevice.desktop().showQmx().ok);
    ASSERT_TRUE(mDevice.timeline().waitFor(sim::match::call("Exit").to("idle"), from));
    EXPECT_THAT(calls(from), ElementsAre("sysd.SetCfgInt si \"Startmode\", 2", "sysd.LoadConfig", "idle.Exit"));
    EXPECT_EQ(mStderr.text(),
              "SDBusSysD: Failed to append dbus msg\nSDBusSysD: Failed to set cfg: SelectedFavoriteWeb\n");
}

TEST_F(SDBusManagerObjectTest, everyUserOfTheBusMayCallShowQmxAndReadProperties)
{
    startService();
    ASSERT_EQ(chmod(mDevice.folder().c_str(), 0755), 0);
    std::thread stranger([this] {
        // for this thread only: the C library would change the whole process
        if (geteuid() == 0) {
            ASSERT_EQ(syscall(SYS_setresuid, 65534, 65534, 65534), 0);
        }
        const auto reply = mDevice.desktop().showQmx();
        EXPECT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorText;
        EXPECT_EQ(read("StatusQV"), "0");
    });
    stranger.join();
    EXPECT_THAT(calls(), SizeIs(3));
}
