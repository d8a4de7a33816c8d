#include "tests/process/protocol/ProtocolTest.h"

namespace {

using rig::call;
using rig::text;
using Bytes = qv::Bytes;
using Calls = std::vector<std::string>;

/// What QV sends for one interface.
struct tNet
{
    std::string interface = "eth0";
    std::string mode = "static";
    std::string ipAddress = "10.0.0.2";
    std::string netmask = "255.0.0.0";
    std::string gateway = "10.0.0.1";
    std::string hostname = "panel";
    std::string dnsDomain = "plant";
    std::uint8_t dnsMode = 0;
    std::vector<std::string> dnsServers = {"1.1.1.1", "2.2.2.2", "3.3.3.3"};

    Bytes request() const
    {
        return call(wire::eMethodSetNetworkCfg,
                    req::joined({text(interface), text(mode), text(ipAddress), text(netmask), text(gateway),
                                 text(hostname), text(dnsDomain), Bytes{dnsMode}, text(dnsServers[0]),
                                 text(dnsServers[1]), text(dnsServers[2])}));
    }
};

std::string quoted(const std::string& value)
{
    return '"' + value + '"';
}

std::string entry(const std::string& key, const std::string& value)
{
    return ", " + quoted(key) + ": " + quoted(value);
}

/// The dictionary that the system daemon gets, written down from its own description.
std::string dictionary(const tNet& net)
{
    std::string out = "{" + entry("Mode", net.mode).substr(2);
    if (net.mode != "DhcpClient" && net.mode != "DHCPClient")
        out += entry("IpAddress", net.ipAddress) + entry("Netmask", net.netmask) + entry("Gateway", net.gateway);
    out += entry("Hostname", net.hostname) + entry("DnsDomain", net.dnsDomain);
    bool anyServer = false;
    for (const std::string& server : net.dnsServers)
        anyServer = anyServer || !server.empty();
    if (net.dnsMode == 1)
        out += R"(, "DnsActivated": true, "DnsFromDhcp": true)";
    if (net.dnsMode == 0 && anyServer) {
        out += R"(, "DnsActivated": true, "DnsFromDhcp": false)";
        for (std::size_t i = 0; i < 3; ++i)
            if (!net.dnsServers[i].empty())
                out += entry("DnsServer" + std::to_string(i), net.dnsServers[i]);
    }
    return out + "}";
}

/// The calls that set the device up at once.
Calls applied(const tNet& net, const std::string& device = "eth0")
{
    return {R"(GetCfgString("ETHInternal"))", R"(GetCfgString("EthDev"))",
            "ConfigureNetIf(" + quoted(device) + ", " + dictionary(net) + ")", R"(GetCfgString("EthDev"))"};
}

/// The calls that store the settings.
Calls stored(const tNet& net, bool dnsActivated)
{
    const std::string mode = net.mode == "DhcpClient" ? "DHCPClient" : net.mode;
    return {R"(GetCfgString("ETHInternal"))",
            "SetParamString(1, " + quoted(net.hostname) + ")",
            "SetParamString(2, " + quoted(mode) + ")",
            "SetParamString(3, " + quoted(net.ipAddress) + ")",
            "SetParamString(4, " + quoted(net.netmask) + ")",
            "SetParamString(5, " + quoted(net.gateway) + ")",
            std::string("SetParamBool(6, ") + (dnsActivated ? "true" : "false") + ")",
            "SetParamString(7, " + quoted(net.dnsDomain) + ")",
            "SetParamInt(8, " + std::to_string(net.dnsMode) + ")",
            "SetParamString(9, " + quoted(net.dnsServers[0]) + ")",
            "SetParamString(10, " + quoted(net.dnsServers[1]) + ")",
            "SetParamString(11, " + quoted(net.dnsServers[2]) + ")",
            "SaveConfig()"};
}

constexpr std::uint8_t kDnsModes[] = {0, 1, 2, 128, 255};

constexpr char kLine[] = "Vorlan: setNetworkCfg: ETHInternal: eth0\n";

/// The simulated device's internal interface is eth1, its configured device eth0.
class NetworkTest : public ProtocolTest
{
protected:
    void bootApplied()
    {
        boot();
        EXPECT_EQ("02", ask(req::applyConfig()));
        prints("Vorlan: ApplyConfig\n");
    }

    void bootHypervisor()
    {
        sysd().setCfg("IsHypervisorSys", true);
        bootApplied();
    }

    void expectApplied(const tNet& sent, const tNet& wanted)
    {
        EXPECT_EQ("02", ask(sent.request()));
        EXPECT_EQ(applied(wanted), calls());
        complains(kLine);
    }

    void expectApplied(const tNet& sent) { expectApplied(sent, sent); }

    void expectStored(const tNet& sent, bool dnsActivated)
    {
        EXPECT_EQ("02", ask(sent.request()));
        EXPECT_EQ(stored(sent, dnsActivated), calls());
    }
};

} // namespace

TEST_F(NetworkTest, IsIgnoredBeforeApplyConfig)
{
    boot();
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ(Calls{}, calls());
    EXPECT_EQ("02", ask(call(wire::eMethodSetNetworkCfg)));
    EXPECT_EQ(Calls{}, calls());
}

TEST_F(NetworkTest, IsIgnoredBeforeApplyConfigOnAHypervisorToo)
{
    sysd().setCfg("IsHypervisorSys", true);
    boot();
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ(Calls{}, calls());
}

TEST_F(NetworkTest, AStaticInterfaceIsApplied)
{
    bootApplied();
    const tNet net;
    EXPECT_EQ("02", ask(net.request()));
    EXPECT_EQ((Calls{R"(GetCfgString("ETHInternal"))", R"(GetCfgString("EthDev"))",
                     R"(ConfigureNetIf("eth0", {"Mode": "static", "IpAddress": "10.0.0.2", )"
                     R"("Netmask": "255.0.0.0", "Gateway": "10.0.0.1", "Hostname": "panel", )"
                     R"("DnsDomain": "plant", "DnsActivated": true, "DnsFromDhcp": false, )"
                     R"("DnsServer0": "1.1.1.1", "DnsServer1": "2.2.2.2", "DnsServer2": "3.3.3.3"}))",
                     R"(GetCfgString("EthDev"))"}),
              calls());
    complains(kLine);
}

TEST_F(NetworkTest, TheDictionaryHoldsTextsAndFlags)
{
    bootApplied();
    tNet net;
    net.mode = "DHCPClient";
    net.dnsMode = 1;
    expectApplied(net);
    const auto event = timeline().find(sim::match::call("ConfigureNetIf"));
    ASSERT_TRUE(event);
    EXPECT_EQ("sa{sv}", event->signature);
    EXPECT_EQ(R"("eth0", {"Mode": "DHCPClient", "Hostname": "panel", "DnsDomain": "plant", "DnsActivated": true, )"
              R"("DnsFromDhcp": true})",
              event->arguments);
}

TEST_F(NetworkTest, BothSpellingsOfDhcpLeaveTheStaticAddressOut)
{
    bootApplied();
    for (const char* mode : {"DhcpClient", "DHCPClient", "dhcpclient", "DhcpClient ", "static"}) {
        tNet net;
        net.mode = mode;
        expectApplied(net); // with the mode as it was sent
    }
}

TEST_F(NetworkTest, EveryDnsModeAndEveryChoiceOfServersIsApplied)
{
    bootApplied();
    for (const std::uint8_t dnsMode : kDnsModes) {
        for (unsigned int servers = 0; servers < 8; ++servers) {
            tNet net;
            net.dnsMode = dnsMode;
            for (unsigned int i = 0; i < 3; ++i)
                if ((servers >> i & 1U) == 0)
                    net.dnsServers[i].clear();
            expectApplied(net);
        }
    }
}

TEST_F(NetworkTest, EmptyFieldsOfAStaticInterfaceAreSentAsTheyAre)
{
    bootApplied();
    expectApplied({"eth0", "", "", "", "", "", "", 2, {"", "", ""}});
    expectApplied({"", "", "", "", "", "", "", 0, {"", "", ""}});
}

TEST_F(NetworkTest, TheInternalInterfaceTakesNoDnsFromDhcp)
{
    bootApplied();
    tNet net;
    net.interface = "eth1";
    for (const std::uint8_t dnsMode : kDnsModes) {
        net.dnsMode = dnsMode;
        tNet wanted = net;
        wanted.dnsMode = 0;
        expectApplied(net, wanted);
    }
}

TEST_F(NetworkTest, AnotherInterfaceKeepsItsDnsMode)
{
    bootApplied();
    for (const char* interface : {"eth0", "eth10", "ETH1", "eth1 ", "eth"}) {
        tNet net;
        net.interface = interface;
        net.dnsMode = 1;
        expectApplied(net);
    }
}

TEST_F(NetworkTest, WithoutAnInternalInterfaceTheEmptyNameIsIt)
{
    sysd().setCfg("ETHInternal", "");
    bootApplied();
    tNet net;
    net.interface = "";
    net.dnsMode = 1;
    tNet wanted = net;
    wanted.dnsMode = 0;
    expectApplied(net, wanted);
}

TEST_F(NetworkTest, TheConfiguredDeviceIsAskedForEachTime)
{
    bootApplied();
    sysd().setCfg("EthDev", "enp3s0");
    when(R"(ConfigureNetIf("enp3s0", )" + dictionary({}) + ")", [this] { sysd().setCfg("EthDev", "wlan0"); });
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ(applied({}, "enp3s0"), calls());
    complains("Vorlan: setNetworkCfg: ETHInternal: wlan0\n"); // asked for anew
}

TEST_F(NetworkTest, OnAHypervisorTheInternalInterfaceIsApplied)
{
    bootHypervisor();
    tNet net;
    net.interface = "eth1";
    net.dnsMode = 1;
    tNet wanted = net;
    wanted.dnsMode = 0;
    expectApplied(net, wanted);
    net.dnsServers = {"", "", ""};
    wanted.dnsServers = net.dnsServers;
    expectApplied(net, wanted);
}

TEST_F(NetworkTest, OnAHypervisorAnotherInterfaceIsStored)
{
    bootHypervisor();
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ((Calls{R"(GetCfgString("ETHInternal"))", R"(SetParamString(1, "panel"))",
                     R"(SetParamString(2, "static"))", R"(SetParamString(3, "10.0.0.2"))",
                     R"(SetParamString(4, "255.0.0.0"))", R"(SetParamString(5, "10.0.0.1"))", "SetParamBool(6, true)",
                     R"(SetParamString(7, "plant"))", "SetParamInt(8, 0)", R"(SetParamString(9, "1.1.1.1"))",
                     R"(SetParamString(10, "2.2.2.2"))", R"(SetParamString(11, "3.3.3.3"))", "SaveConfig()"}),
              calls());
}

TEST_F(NetworkTest, OneSpellingOfDhcpIsChangedWhereItIsStored)
{
    bootHypervisor();
    for (const char* mode : {"DhcpClient", "DHCPClient", "dhcpClient", "DhcpClientX", ""}) {
        tNet net;
        net.mode = mode;
        expectStored(net, true);
    }
    EXPECT_EQ("02", ask(tNet{"eth0", "DhcpClient"}.request()));
    EXPECT_EQ(R"(SetParamString(2, "DHCPClient"))", calls()[2]);
}

TEST_F(NetworkTest, DnsIsActiveAsTheModeAndTheServersSay)
{
    bootHypervisor();
    for (const std::uint8_t dnsMode : kDnsModes) {
        for (unsigned int servers = 0; servers < 8; ++servers) {
            tNet net;
            net.dnsMode = dnsMode;
            for (unsigned int i = 0; i < 3; ++i)
                if ((servers >> i & 1U) == 0)
                    net.dnsServers[i].clear();
            expectStored(net, dnsMode == 1 || (dnsMode == 0 && servers != 0));
        }
    }
}

TEST_F(NetworkTest, BytesBehindTheLastServerAreIgnored)
{
    bootApplied();
    Bytes request = tNet{}.request();
    request.insert(request.end(), {'x', 0, 0xFF});
    EXPECT_EQ("02", ask(request));
    EXPECT_EQ(applied({}), calls());
    complains(kLine);
}

/// A request cut at any byte: a text that lost its end is empty, and so is everything behind it.
class CutNetworkTest : public NetworkTest
{
protected:
    /// Reads the request as the daemon is to read it.
    static tNet cut(const Bytes& request)
    {
        std::size_t at = 2;
        const auto take = [&]() -> std::string {
            const auto begin = request.begin() + static_cast<std::ptrdiff_t>(std::min(at, request.size()));
            const auto end = std::find(begin, request.end(), 0);
            std::string out = end == request.end() ? "" : std::string(begin, end);
            at += out.size() + 1;
            return out;
        };
        tNet net;
        for (std::string* field :
             {&net.interface, &net.mode, &net.ipAddress, &net.netmask, &net.gateway, &net.hostname, &net.dnsDomain})
            *field = take();
        net.dnsMode = at < request.size() ? request[at] : 0;
        ++at;
        for (std::string& server : net.dnsServers)
            server = take();
        return net;
    }
};

TEST_F(CutNetworkTest, IsAppliedWithEmptyFields)
{
    bootApplied();
    const Bytes whole = tNet{"e", "st", "10.2", "25", "g", "h", "d", 1, {"a", "b", "c"}}.request();
    for (std::size_t length = 2; length <= whole.size(); ++length) {
        const Bytes request(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ("02", ask(request)) << "cut at " << length;
        EXPECT_EQ(applied(cut(request)), calls()) << "cut at " << length;
        complains(kLine);
    }
}

TEST_F(CutNetworkTest, IsStoredWithEmptyFieldsOnAHypervisor)
{
    bootHypervisor();
    const Bytes whole = tNet{"e", "st", "10.2", "25", "g", "h", "d", 0, {"a", "b", "c"}}.request();
    for (std::size_t length = 2; length <= whole.size(); ++length) {
        const Bytes request(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        const tNet net = cut(request);
        EXPECT_EQ("02", ask(request)) << "cut at " << length;
        EXPECT_EQ(stored(net, !(net.dnsServers[0] + net.dnsServers[1] + net.dnsServers[2]).empty()), calls())
            << "cut at " << length;
    }
}

TEST_F(CutNetworkTest, TextsThatAreNotEndedAreEmptyEachOneByteFurther)
{
    bootApplied();
    // The interface begins at byte 2 and finds no end, the mode begins at byte 3, and so on; byte 9 is the DNS mode.
    EXPECT_EQ("02", ask(call(wire::eMethodSetNetworkCfg, Bytes(12, 1))));
    tNet net{"", "", "", "", "", "", "", 1, {"", "", ""}};
    EXPECT_EQ(applied(net), calls());
    complains(kLine);
    // With one end behind them every text runs up to it.
    EXPECT_EQ("02", ask(call(wire::eMethodSetNetworkCfg, {'a', 'b', 0})));
    EXPECT_EQ(applied(tNet{"ab", "", "", "", "", "", "", 0, {"", "", ""}}), calls());
    complains(kLine);
}

TEST_F(CutNetworkTest, ArgumentsOfEveryLengthAreProcessed)
{
    bootApplied();
    for (const Bytes& pattern : {Bytes{'A'}, Bytes{0}, Bytes{'A', 0}, Bytes{'A', 'B', 0}}) {
        for (std::size_t length = 0; length <= 16; ++length) {
            Bytes arguments;
            for (std::size_t i = 0; i < length; ++i)
                arguments.push_back(pattern[i % pattern.size()]);
            const Bytes request = call(wire::eMethodSetNetworkCfg, arguments);
            EXPECT_EQ("02", ask(request));
            tNet wanted = cut(request);
            EXPECT_EQ(applied(wanted), calls()) << rig::hex(request);
            complains(kLine);
        }
    }
}

TEST_F(NetworkTest, TheSameSettingsTwiceAreAppliedTwice)
{
    bootApplied();
    expectApplied({});
    expectApplied({});
    expectApplied({"eth0", "DhcpClient"});
}

TEST_F(NetworkTest, MoreInterfacesThanAnyDeviceHasAreServed)
{
    bootApplied();
    for (int i = 0; i < 100; ++i)
        expectApplied({"eth" + std::to_string(100 + i)});
}

TEST_F(NetworkTest, AFailedCallIsAcceptedAllTheSame)
{
    bootApplied();
    sysd().setBehaviour("ConfigureNetIf", sim::tBehaviour::error());
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ(applied({}), calls());
    complains(std::string("SysDDBusCtrl: Failed to call configureNetIf\n") + kLine);

    sysd().setBehaviour("*", sim::tBehaviour::error());
    EXPECT_EQ("02", ask(tNet{}.request()));
    EXPECT_EQ(applied({}, ""), calls());
    complains(rig::repeated("SDBusSysD: Failed to get cfg: ETHInternal\n", 2) +
              rig::repeated("SDBusSysD: Failed to get cfg: EthDev\n", 2) +
              "SysDDBusCtrl: Failed to call configureNetIf\n" +
              rig::repeated("SDBusSysD: Failed to get cfg: EthDev\n", 2) + "Vorlan: setNetworkCfg: ETHInternal: \n");
}

TEST_F(NetworkTest, OnAHypervisorEachFailedCallLeavesItsLineAndTheOthersAreMade)
{
    bootHypervisor();
    sysd().setBehaviour("SetParamString", sim::tBehaviour::error());
    sysd().setBehaviour("SetParamBool", sim::tBehaviour::error());
    sysd().setBehaviour("SetParamInt", sim::tBehaviour::error());
    sysd().setBehaviour("SaveConfig", sim::tBehaviour::error());
    expectStored({}, true);
    for (int param = 1; param <= 11; ++param)
        complains("SDBusSysD: Failed to set param: " + std::to_string(param) + "\n");
    complains("SysDDBusCtrl: Failed to call methodNoParam\n");
}
