#include "tests/process/protocol/VisuTest.h"

namespace {

using rig::call;
using rig::text;
using sim::match::property;
using Bytes = qv::Bytes;

/// None of these may be sent on a bus: bytes that never occur, a character cut short, a zero in two bytes, half a
/// surrogate pair, a number beyond the last character.
const std::string kNotUtf8[] = {"\xFF\xFE", "caf\xC3", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\x80z"};

const std::string kLong(40000, 'x');

/// Beyond ASCII, and fine.
const std::string kUtf8 = "Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x9A\xB2";

class BadTextTest : public VisuTest
{
protected:
    void SetUp() override
    {
        VisuTest::SetUp();
        mOptions.arguments = {"-b", "4000000", "-s", mRig.device().line().slavePath()}; // texts are long here
    }

    /// The link is in step, and both connections to the buses work.
    void expectServed()
    {
        EXPECT_EQ("00 31 2e 34 2e 32 00", ask(rig::readReg(wire::eRegRdParamText)));
        signals();
    }

    sim::Daemon::tOptions mOptions;
};

std::string inQuotes(const std::string& text)
{
    return '"' + text + '"';
}

} // namespace

TEST_F(BadTextTest, AnAddressThatIsNotUtf8IsKeptAndGoesNowhere)
{
    boot(mOptions);
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("01", ask(req::address(bad)));
        EXPECT_EQ(Calls{}, calls());
        EXPECT_EQ(Calls{}, signals());
        complains("SDBusSysD: Failed to append dbus msg\n"
                  "SDBusSysD: Failed to set param: 214\n");
        expectServed();
    }
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ((Calls{R"(SetParamString(214, "10.0.0.5"))"}), calls());
    EXPECT_EQ((Calls{R"(IpAddrQV = "10.0.0.5")"}), signals());
}

TEST_F(BadTextTest, AReadOfAnAddressThatIsNotUtf8FailsAndTheServiceGoesOn)
{
    boot(mOptions);
    const sim::Desktop& desktop = mRig.device().desktop();
    ASSERT_TRUE(desktop.waitForService());
    EXPECT_EQ("01", ask(req::address(kNotUtf8[0])));
    complains("SDBusSysD: Failed to append dbus msg\n"
              "SDBusSysD: Failed to set param: 214\n");
    EXPECT_FALSE(desktop.property("IpAddrQV").ok);
    EXPECT_EQ("0", desktop.property("StatusQV").value);
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    EXPECT_EQ("10.0.0.5", desktop.property("IpAddrQV").raw);
}

TEST_F(BadTextTest, AnAddressThatIsLongOrBeyondAsciiIsFine)
{
    boot(mOptions);
    for (const std::string& good : {kLong, kUtf8}) {
        EXPECT_EQ("01", ask(req::address(good)));
        EXPECT_EQ((Calls{"SetParamString(214, " + inQuotes(good) + ")"}), calls());
        EXPECT_EQ((Calls{"IpAddrQV = " + inQuotes(good)}), signals());
        expectServed();
    }
}

TEST_F(BadTextTest, StoredTextsMayBeAnything)
{
    boot(mOptions);
    for (const std::uint8_t address : {wire::eRegWrQVText1, wire::eRegWrQVText2}) {
        for (const std::string& any : {kNotUtf8[0], kUtf8, kLong})
            EXPECT_EQ("01", ask(rig::writeReg(address, text(any))));
        EXPECT_EQ("81", ask(rig::writeReg(address, Bytes(40000, 'x')))); // not ended
    }
    expectServed();
}

TEST_F(BadTextTest, KeysThatAreNotUtf8SetNothing)
{
    boot(mOptions);
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("02", ask(call(wire::eMethodSetCfgStr, req::joined({text(bad), text("value")}))));
        EXPECT_EQ(Calls{}, calls());
        EXPECT_EQ("02", ask(call(wire::eMethodSetCfgLong, req::joined({text(bad), req::u32(1)}))));
        EXPECT_EQ(Calls{}, calls());
        complains(rig::repeated("SDBusSysD: Failed to append dbus msg\n"
                                "SDBusSysD: Failed to set cfg: " +
                                    bad + "\n",
                                2));
        expectServed();
    }
}

TEST_F(BadTextTest, ValuesThatAreNotUtf8SetNothing)
{
    boot(mOptions);
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("02", ask(call(wire::eMethodSetCfgStr, req::joined({text("VisuURL"), text(bad)}))));
        EXPECT_EQ(Calls{}, calls());
        complains("SDBusSysD: Failed to append dbus msg\n"
                  "SDBusSysD: Failed to set cfg: VisuURL\n");
        expectServed();
    }
}

TEST_F(BadTextTest, KeysAndValuesThatAreLongOrBeyondAsciiAreHandedOver)
{
    sysd().setCfg(kLong, sim::SysDaemon::CfgValue{});
    boot(mOptions);
    for (const std::string& good : {kLong, kUtf8}) {
        EXPECT_EQ("02", ask(call(wire::eMethodSetCfgStr, req::joined({text("VisuURL"), text(good)}))));
        EXPECT_EQ((Calls{"SetCfgString(\"VisuURL\", " + inQuotes(good) + ")"}), calls());
    }
    EXPECT_EQ("02", ask(call(wire::eMethodSetCfgLong, req::joined({text(kLong), req::u32(1)}))));
    EXPECT_EQ((Calls{"SetCfgInt(" + inQuotes(kLong) + ", 1)"}), calls());
    expectServed();
}

TEST_F(BadTextTest, LongKeysWithoutAnEndAreRefused)
{
    boot(mOptions);
    for (const std::uint8_t method :
         {wire::eMethodSetCfgStr, wire::eMethodSetCfgLong, wire::eMethodAppTriggeredUpdate}) {
        EXPECT_EQ("82", ask(call(method, Bytes(40000, 'x'))));
        EXPECT_EQ(Calls{}, calls());
    }
    // A value without one is the empty text.
    EXPECT_EQ("02", ask(call(wire::eMethodSetCfgStr, req::joined({text("VisuURL"), Bytes(40000, 'x')}))));
    EXPECT_EQ((Calls{R"(SetCfgString("VisuURL", ""))"}), calls());
    expectServed();
}

TEST_F(BadTextTest, APathThatIsNotUtf8IsNotSetAndTheUpdateGoesOn)
{
    boot(mOptions);
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("02", ask(call(wire::eMethodAppTriggeredUpdate, text(bad))));
        EXPECT_EQ((Calls{"SetParamInt(61, 3)", "SaveConfig()", "SysUpdate()"}), calls());
        complains("SDBusSysD: Failed to append dbus msg\n"
                  "SDBusSysD: Failed to set param: 66\n");
        expectServed();
    }
}

TEST_F(BadTextTest, APathThatIsLongIsHandedOver)
{
    boot(mOptions);
    EXPECT_EQ("02", ask(call(wire::eMethodAppTriggeredUpdate, text(kLong))));
    EXPECT_EQ("SetParamString(66, " + inQuotes(kLong) + ")", calls().at(0));
    expectServed();
}

namespace {

/// The text fields of a network request, in their order; the DNS mode is byte 0 between the seventh and the eighth.
const char* const kNetFields[] = {"Interface", "Mode",      "IpAddress",  "Netmask",    "Gateway",
                                  "Hostname",  "DnsDomain", "DnsServer0", "DnsServer1", "DnsServer2"};

class BadNetworkTextTest : public BadTextTest, public testing::WithParamInterface<std::size_t>
{
protected:
    /// Each field holds its own name, this one that text.
    static Bytes request(std::size_t bad, const std::string& value)
    {
        Bytes out;
        for (std::size_t i = 0; i < std::size(kNetFields); ++i) {
            if (i == 7)
                out.push_back(0);
            const Bytes field = text(i == bad ? value : kNetFields[i]);
            out.insert(out.end(), field.begin(), field.end());
        }
        return call(wire::eMethodSetNetworkCfg, out);
    }

    std::string field() const { return kNetFields[GetParam()]; }

    void applyConfig()
    {
        EXPECT_EQ("02", ask(req::applyConfig()));
        prints("Vorlan: ApplyConfig\n");
    }

    /// The dictionary with this field's value.
    std::string dictionary(const std::string& value) const
    {
        std::string out = "{";
        for (const char* key : {"Mode", "IpAddress", "Netmask", "Gateway", "Hostname", "DnsDomain"})
            out += inQuotes(key) + ": " + inQuotes(key == field() ? value : key) + ", ";
        out += R"("DnsActivated": true, "DnsFromDhcp": false)";
        for (const char* key : {"DnsServer0", "DnsServer1", "DnsServer2"})
            if (key != field() || !value.empty())
                out += ", " + inQuotes(key) + ": " + inQuotes(key == field() ? value : key);
        return out + "}";
    }

    Calls appliedCalls(const std::string& value) const
    {
        return {R"(GetCfgString("ETHInternal"))", R"(GetCfgString("EthDev"))",
                R"(ConfigureNetIf("eth0", )" + dictionary(value) + ")", R"(GetCfgString("EthDev"))"};
    }
};

constexpr char kLine[] = "Vorlan: setNetworkCfg: ETHInternal: eth0\n";

} // namespace

TEST_P(BadNetworkTextTest, ThatIsNotUtf8IsNotApplied)
{
    boot(mOptions);
    applyConfig();
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("02", ask(request(GetParam(), bad)));
        if (field() == "Interface") { // only compared
            EXPECT_EQ(appliedCalls(""), calls());
        } else {
            EXPECT_EQ(
                (Calls{R"(GetCfgString("ETHInternal"))", R"(GetCfgString("EthDev"))", R"(GetCfgString("EthDev"))"}),
                calls());
            complains("SysDDBusCtrl: Failed to append dbus message: " + bad +
                      "\n"
                      "SysDDBusCtrl: Failed to close SD_BUS_TYPE_ARRAY container\n"
                      "SysDDBusCtrl: Failed to call configureNetIf\n");
        }
        complains(kLine);
        expectServed();
    }
}

TEST_P(BadNetworkTextTest, ThatIsNotUtf8IsNotStoredOnAHypervisorAndTheOthersAre)
{
    sysd().setCfg("IsHypervisorSys", true);
    boot(mOptions);
    applyConfig();
    const std::uint32_t kParams[] = {0, 2, 3, 4, 5, 1, 7, 9, 10, 11}; // of the fields
    for (const std::string& bad : kNotUtf8) {
        EXPECT_EQ("02", ask(request(GetParam(), bad)));
        Calls wanted = {R"(GetCfgString("ETHInternal"))"};
        for (const std::size_t i : {5U, 1U, 2U, 3U, 4U, 100U, 6U, 101U, 7U, 8U, 9U}) {
            if (i == 100)
                wanted.emplace_back("SetParamBool(6, true)");
            else if (i == 101)
                wanted.emplace_back("SetParamInt(8, 0)");
            else if (i != GetParam())
                wanted.push_back("SetParamString(" + std::to_string(kParams[i]) + ", " + inQuotes(kNetFields[i]) + ")");
        }
        wanted.emplace_back("SaveConfig()");
        EXPECT_EQ(wanted, calls());
        if (field() != "Interface")
            complains("SDBusSysD: Failed to append dbus msg\n"
                      "SDBusSysD: Failed to set param: " +
                      std::to_string(kParams[GetParam()]) + "\n");
        expectServed();
    }
}

TEST_P(BadNetworkTextTest, ThatIsLongOrBeyondAsciiOrEmptyIsApplied)
{
    boot(mOptions);
    applyConfig();
    for (const std::string& good : {kLong, kUtf8, std::string()}) {
        EXPECT_EQ("02", ask(request(GetParam(), good)));
        EXPECT_EQ(appliedCalls(good), calls());
        complains(kLine);
        expectServed();
    }
}

TEST_P(BadNetworkTextTest, ThatIsLongAndNotEndedIsEmptyLikeAllThatFollow)
{
    boot(mOptions);
    applyConfig();
    Bytes cut = call(wire::eMethodSetNetworkCfg);
    for (std::size_t i = 0; i < GetParam(); ++i) {
        if (i == 7)
            cut.push_back(0);
        const Bytes fieldBytes = text(kNetFields[i]);
        cut.insert(cut.end(), fieldBytes.begin(), fieldBytes.end());
    }
    cut.insert(cut.end(), 40000, 2);
    EXPECT_EQ("02", ask(cut));
    const auto applied = timeline().find(sim::match::call("ConfigureNetIf"));
    ASSERT_TRUE(applied);
    EXPECT_LT(applied->arguments.size(), 400U);
    EXPECT_EQ(std::string::npos, applied->arguments.find("\\x02"));
    complains(kLine);
    expectServed();
}

INSTANTIATE_TEST_SUITE_P(Fields, BadNetworkTextTest, testing::Range(std::size_t{0}, std::size(kNetFields)),
                         [](const auto& row) { return std::string(kNetFields[row.param]); });

TEST_F(BadTextTest, AUrlThatIsMadeBadByTheAddressIsNotSetAndTheNextOneIs)
{
    boot(mOptions);
    EXPECT_EQ("02", ask(req::setTime()));
    EXPECT_EQ("01", ask(req::running()));
    EXPECT_EQ("01", ask(req::address(kNotUtf8[0])));
    complains("SDBusSysD: Failed to append dbus msg\n"
              "SDBusSysD: Failed to set param: 214\n"
              "SDBusSysD: Failed to append dbus msg\n"
              "SDBusSysD: Failed to set param: 90\n");
    openGate();
    finishLogos();
    Calls wanted = webCalls("");
    wanted.erase(wanted.end() - 2); // the URL itself
    EXPECT_EQ(wanted, callsSoFar());
    expectServed();
    EXPECT_EQ("01", ask(req::address("10.0.0.5")));
    wanted = webCalls("http://10.0.0.5:8080/index.html");
    wanted.insert(wanted.begin(), R"(SetParamString(214, "10.0.0.5"))");
    EXPECT_EQ(wanted, callsSoFar());
    expectServed();
}

TEST_F(BadTextTest, ALongTextOfTheSystemDaemonIsSentWhole)
{
    sysd().setParam(127, kLong);
    boot(mOptions);
    EXPECT_EQ("00" + rig::repeated(" 78", kLong.size()) + " 00", ask(rig::readReg(wire::eRegRdParamText)));
    sysd().setParam(127, "1.4.2");
    expectServed();
}
