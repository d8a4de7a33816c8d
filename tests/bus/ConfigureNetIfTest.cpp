#include "dbus/SDBusSysD.h"
#include "tests/bus/BusFault.h"
#include "tests/bus/BusTest.h"

#include <cerrno>
#include <cstdlib>
#include <thread>

using sim::tBehaviour;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kCreateFailed = "SysDDBusCtrl: Failed to create dbus message\n";
const std::string kArrayFailed = "SysDDBusCtrl: Failed to close SD_BUS_TYPE_ARRAY container\n";
const std::string kCallFailed = "SysDDBusCtrl: Failed to call configureNetIf\n";

/// Every entry that there is occurs in it.
NetConf fullConf()
{
    return {"Static",      "10.0.0.5", "255.0.0.0", "10.0.0.1", "display",
            "example.org", 0,          "9.9.9.9",   "8.8.8.8",  "1.1.1.1"};
}

const std::vector<std::string> kFullKeys{"Mode",       "IpAddress",  "Netmask",      "Gateway",
                                         "Hostname",   "DnsDomain",  "DnsActivated", "DnsFromDhcp",
                                         "DnsServer0", "DnsServer1", "DnsServer2"};

class ConfigureNetIfTest : public BusTest
{
protected:
    explicit ConfigureNetIfTest(const char* callTimeOut = kPatient)
        : BusTest(callTimeOut)
    {}

    /// What the system daemon received, without the interface; "nothing" when no call came.
    std::string sent(const NetConf& conf)
    {
        const std::size_t from = mark();
        mSysD.configureNetIf("eth0", conf);
        const auto seen = calls(from);
        const std::string head = "sysd.ConfigureNetIf sa{sv} \"eth0\", ";
        if (seen.size() != 1 || seen[0].rfind(head, 0) != 0)
            return seen.empty() ? "nothing" : ::testing::PrintToString(seen);
        return seen[0].substr(head.size());
    }

    /// Nothing was sent, exactly these lines were written, and the next call works.
    void expectRefused(const std::string& interface, const NetConf& conf, const std::string& lines)
    {
        mStderr.clear();
        const std::size_t from = mark();
        mSysD.configureNetIf(interface, conf);
        EXPECT_EQ(mStderr.text(), lines);
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks();
    }

    void expectWorks()
    {
        mStderr.clear();
        EXPECT_EQ(sent({"DHCPClient", "", "", "", "", "", 2, "", "", ""}),
                  R"({"Mode": "DHCPClient", "Hostname": "", "DnsDomain": ""})");
        EXPECT_EQ(mStderr.text(), "");
    }

    SDBusSysD mSysD;
};

class HastyConfigureNetIfTest : public ConfigureNetIfTest
{
protected:
    HastyConfigureNetIfTest()
        : ConfigureNetIfTest(kHasty)
    {}
};

} // namespace

TEST_F(ConfigureNetIfTest, sendsEveryEntryInItsOrder)
{
    EXPECT_EQ(sent(fullConf()),
              R"({"Mode": "Static", "IpAddress": "10.0.0.5", "Netmask": "255.0.0.0", "Gateway": "10.0.0.1", )"
              R"("Hostname": "display", "DnsDomain": "example.org", "DnsActivated": true, "DnsFromDhcp": false, )"
              R"("DnsServer0": "9.9.9.9", "DnsServer1": "8.8.8.8", "DnsServer2": "1.1.1.1"})");
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(ConfigureNetIfTest, dhcpInBothSpellingsHasNoAddressEntries)
{
    for (const std::string mode : {"DhcpClient", "DHCPClient"}) {
        NetConf conf = fullConf();
        conf.mode = mode;
        conf.dnsMode = 1;
        EXPECT_EQ(sent(conf), "{\"Mode\": \"" + mode +
                                  "\", \"Hostname\": \"display\", \"DnsDomain\": \"example.org\", "
                                  "\"DnsActivated\": true, \"DnsFromDhcp\": true}");
    }
}

TEST_F(ConfigureNetIfTest, anyOtherModeIsStaticAndItsAddressesAreSentEvenWhenEmpty)
{
    for (const std::string mode : {"", "static", "dhcpclient", "DHCPCLIENT", "DhcpClient ", "DHCP"}) {
        const NetConf conf{mode, "", "", "", "", "", 2, "", "", ""};
        EXPECT_EQ(sent(conf), "{\"Mode\": \"" + mode +
                                  "\", \"IpAddress\": \"\", \"Netmask\": \"\", \"Gateway\": \"\", \"Hostname\": \"\", "
                                  "\"DnsDomain\": \"\"}");
    }
}

TEST_F(ConfigureNetIfTest, staticWithFirstAndThirdServer)
{
    NetConf conf = fullConf();
    conf.dnsServer1.clear();
    EXPECT_EQ(sent(conf),
              R"({"Mode": "Static", "IpAddress": "10.0.0.5", "Netmask": "255.0.0.0", "Gateway": "10.0.0.1", )"
              R"("Hostname": "display", "DnsDomain": "example.org", "DnsActivated": true, "DnsFromDhcp": false, )"
              R"("DnsServer0": "9.9.9.9", "DnsServer2": "1.1.1.1"})");
}

TEST_F(ConfigureNetIfTest, serversKeepTheirNumbersWhateverIsMissing)
{
    for (unsigned set = 0; set < 8; ++set) {
        NetConf conf{"DhcpClient", "", "", "", "", "", 0, "", "", ""};
        std::string servers;
        std::string* const fields[] = {&conf.dnsServer0, &conf.dnsServer1, &conf.dnsServer2};
        for (unsigned i = 0; i < 3; ++i) {
            if ((set >> i & 1U) == 0)
                continue;
            *fields[i] = "10.0.0." + std::to_string(i);
            servers += ", \"DnsServer" + std::to_string(i) + "\": \"" + *fields[i] + "\"";
        }
        const std::string flags = set == 0 ? "" : ", \"DnsActivated\": true, \"DnsFromDhcp\": false";
        EXPECT_EQ(sent(conf),
                  "{\"Mode\": \"DhcpClient\", \"Hostname\": \"\", \"DnsDomain\": \"\"" + flags + servers + "}")
            << "servers " << set;
    }
}

TEST_F(ConfigureNetIfTest, dnsFromDhcpSendsNoServers)
{
    NetConf conf = fullConf();
    conf.mode = "DHCPClient";
    conf.dnsMode = 1;
    const std::string expected = R"({"Mode": "DHCPClient", "Hostname": "display", "DnsDomain": "example.org", )"
                                 R"("DnsActivated": true, "DnsFromDhcp": true})";
    EXPECT_EQ(sent(conf), expected);
    conf.dnsServer0 = conf.dnsServer1 = conf.dnsServer2 = "";
    EXPECT_EQ(sent(conf), expected);
}

TEST_F(ConfigureNetIfTest, anyOtherDnsModeSendsNoDnsSettingsWhateverTheServersHold)
{
    for (const int mode : {2, 3, 128, 255}) {
        NetConf conf = fullConf();
        conf.mode = "DHCPClient";
        conf.dnsMode = static_cast<std::uint8_t>(mode);
        EXPECT_EQ(sent(conf), R"({"Mode": "DHCPClient", "Hostname": "display", "DnsDomain": "example.org"})");
    }
}

TEST_F(ConfigureNetIfTest, interfaceNameIsSentAsItIs)
{
    const NetConf conf{"DhcpClient", "", "", "", "", "", 2, "", "", ""};
    const std::string rest = R"(, {"Mode": "DhcpClient", "Hostname": "", "DnsDomain": ""})";
    for (const std::string name : {"", "eth1", "wlan 0"}) {
        const std::size_t from = mark();
        mSysD.configureNetIf(name, conf);
        EXPECT_THAT(calls(from), ElementsAre("sysd.ConfigureNetIf sa{sv} \"" + name + "\"" + rest));
    }
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(ConfigureNetIfTest, veryLongTextsPass)
{
    NetConf conf{"DHCPClient", "", "", "", std::string(40'000, 'h'), "", 2, "", "", ""};
    EXPECT_EQ(sent(conf), "{\"Mode\": \"DHCPClient\", \"Hostname\": \"" + conf.hostname + "\", \"DnsDomain\": \"\"}");
    EXPECT_EQ(mStderr.text(), "");
}

// ---- What fails while the message is built

TEST_F(ConfigureNetIfTest, withoutASystemBusOnlyTheCreateLineIsWritten)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    SDBusSysD sysd;
    mStderr.clear();
    sysd.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), kCreateFailed);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ConfigureNetIfTest, messageCannotBeCreated)
{
    {
        const BusFault fault("sd_bus_message_new_method_call", -ENOMEM, 0, 1);
        mSysD.configureNetIf("eth0", fullConf());
    }
    EXPECT_EQ(mStderr.text(), kCreateFailed);
    EXPECT_THAT(calls(), IsEmpty());
    expectWorks();
}

TEST_F(ConfigureNetIfTest, interfaceThatIsNotUtf8)
{
    expectRefused("eth\xff", fullConf(), "SysDDBusCtrl: Failed to append dbus message: Interface\n");
}

TEST_F(ConfigureNetIfTest, arrayCannotBeOpened)
{
    {
        const BusFault fault("sd_bus_message_open_container", -ENOMEM, 0, 1);
        mSysD.configureNetIf("eth0", fullConf());
    }
    EXPECT_EQ(mStderr.text(), kCallFailed);
    EXPECT_THAT(calls(), IsEmpty());
    expectWorks();
}

TEST_F(ConfigureNetIfTest, textThatIsNotUtf8InAnyFieldSendsNothing)
{
    const std::string bad = "bad\xc3\x28";
    std::string NetConf::*const fields[] = {&NetConf::mode,       &NetConf::ipAddress,  &NetConf::netmask,
                                            &NetConf::gateway,    &NetConf::hostname,   &NetConf::dnsDomain,
                                            &NetConf::dnsServer0, &NetConf::dnsServer1, &NetConf::dnsServer2};
    for (const auto field : fields) {
        NetConf conf = fullConf();
        conf.*field = bad;
        expectRefused("eth0", conf,
                      "SysDDBusCtrl: Failed to append dbus message: " + bad + "\n" + kArrayFailed + kCallFailed);
    }
}

TEST_F(ConfigureNetIfTest, textsThatAreNotSentMayHoldAnything)
{
    NetConf conf = fullConf();
    conf.mode = "DhcpClient";
    conf.dnsMode = 2;
    conf.ipAddress = conf.netmask = conf.gateway = conf.dnsServer0 = conf.dnsServer1 = conf.dnsServer2 = "\xff";
    EXPECT_EQ(sent(conf), R"({"Mode": "DhcpClient", "Hostname": "display", "DnsDomain": "example.org"})");
    EXPECT_EQ(mStderr.text(), "");
}

// Each step of each entry, as when memory runs out

TEST_F(ConfigureNetIfTest, entryCannotBeOpened)
{
    for (std::size_t i = 0; i < kFullKeys.size(); ++i) {
        mStderr.clear();
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_open_container", -ENOMEM, 1 + i, 1);
            mSysD.configureNetIf("eth0", fullConf());
        }
        // the entries before it make a whole dictionary
        EXPECT_EQ(mStderr.text(),
                  "SysDDBusCtrl: Failed to open SD_BUS_TYPE_DICT_ENTRY container: " + kFullKeys[i] + "\n");
        EXPECT_EQ(calls(from).size(), 1U);
        EXPECT_EQ(calls(from)[0].find(kFullKeys[i] + "\":"), std::string::npos);
        expectWorks();
    }
}

TEST_F(ConfigureNetIfTest, keyCannotBeAppended)
{
    for (std::size_t i = 0; i < kFullKeys.size(); ++i) {
        mStderr.clear();
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_append", -ENOMEM, 1 + 2 * i, 1);
            mSysD.configureNetIf("eth0", fullConf());
        }
        EXPECT_EQ(mStderr.text(),
                  "SysDDBusCtrl: Failed to append dbus message: " + kFullKeys[i] + "\n" + kArrayFailed + kCallFailed);
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks();
    }
}

TEST_F(ConfigureNetIfTest, valueCannotBeAppended)
{
    // the flags are empty texts until their values are written
    const std::vector<std::string> values{"Static", "10.0.0.5", "255.0.0.0", "10.0.0.1", "display", "example.org",
                                          "",       "",         "9.9.9.9",   "8.8.8.8",  "1.1.1.1"};
    for (std::size_t i = 0; i < values.size(); ++i) {
        mStderr.clear();
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_append", -ENOMEM, 2 + 2 * i, 1);
            mSysD.configureNetIf("eth0", fullConf());
        }
        EXPECT_EQ(mStderr.text(),
                  "SysDDBusCtrl: Failed to append dbus message: " + values[i] + "\n" + kArrayFailed + kCallFailed);
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks();
    }
}

TEST_F(ConfigureNetIfTest, entryCannotBeClosed)
{
    for (std::size_t i = 0; i < kFullKeys.size(); ++i) {
        mStderr.clear();
        const std::size_t from = mark();
        {
            const BusFault fault("sd_bus_message_close_container", -ENOMEM, i, 2); // and the array around it
            mSysD.configureNetIf("eth0", fullConf());
        }
        EXPECT_EQ(mStderr.text(), "SysDDBusCtrl: Failed to close SD_BUS_TYPE_DICT_ENTRY container: " + kFullKeys[i] +
                                      "\n" + kArrayFailed + kCallFailed);
        EXPECT_THAT(calls(from), IsEmpty());
        expectWorks();
    }
}

TEST_F(ConfigureNetIfTest, arrayCannotBeClosed)
{
    {
        const BusFault fault("sd_bus_message_close_container", -ENOMEM, kFullKeys.size(), 1);
        mSysD.configureNetIf("eth0", fullConf());
    }
    EXPECT_EQ(mStderr.text(), kArrayFailed + kCallFailed);
    EXPECT_THAT(calls(), IsEmpty());
    expectWorks();
}

// ---- What fails when it is sent

TEST_F(ConfigureNetIfTest, absentSystemDaemon)
{
    mDevice.sysd().goAway();
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), kCallFailed);
    mDevice.sysd().comeBack();
    expectWorks();
}

TEST_F(ConfigureNetIfTest, errorAnswer)
{
    mDevice.sysd().setBehaviour("ConfigureNetIf", tBehaviour::error().times(1));
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), kCallFailed);
    expectWorks();
}

TEST_F(ConfigureNetIfTest, systemDaemonRestartsInTheMiddle)
{
    mDevice.sysd().setBehaviour("ConfigureNetIf", tBehaviour::crash(sim::milliseconds{0}).times(1));
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), kCallFailed);
    mDevice.sysd().comeBack();
    expectWorks();
}

TEST_F(ConfigureNetIfTest, answerIsNotRead)
{
    mDevice.sysd().setBehaviour("ConfigureNetIf", tBehaviour::wrongType().times(1));
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), "");
}

TEST_F(HastyConfigureNetIfTest, silentSystemDaemon)
{
    mDevice.sysd().setBehaviour("ConfigureNetIf", tBehaviour::silent().times(1));
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mStderr.text(), kCallFailed);
    expectWorks();
}

TEST_F(ConfigureNetIfTest, waitsForItsAnswer)
{
    mDevice.sysd().setBehaviour("ConfigureNetIf", tBehaviour::delayed(sim::milliseconds{50}));
    mSysD.configureNetIf("eth0", fullConf());
    EXPECT_EQ(mDevice.timeline().count([](const sim::tEvent& event) { return event.answer.has_value(); }), 1U);
}
