#include "qv/Request.h"

#include "qv/Trace.h"
#include "qv/Values.h"
#include "tests/qv/Hex.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace {

using qv::RequestError;
using Args = std::vector<std::string>;

template <class Function>
std::string errorOf(Function function)
{
    try {
        function();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

TEST(Request, RegistersGoByNameEnumeratorAndNumber)
{
    for (const auto* name : {"brightness-raw", "eRegRdDispBrightnessRaw", "9", "0x9"}) {
        const auto request = qv::readRequest(name);
        EXPECT_EQ(request.message, hex("00 09")) << name;
        EXPECT_EQ(request.text, "read brightness-raw");
        EXPECT_EQ(request.replyType, wire::ValueE::eU8);
        EXPECT_TRUE(request.safeToRepeat);
    }
}

TEST(Request, EveryRegisterAndMethodCanBeBuilt)
{
    for (const auto& reg : wire::kReadRegisters) {
        EXPECT_EQ(qv::readRequest(reg.value.name).message, (qv::Bytes{0, reg.address}));
    }
    EXPECT_EQ(qv::writeRequest("qv-prot-version", "2").message, hex("01 00 02"));
    EXPECT_EQ(qv::writeRequest("qv-status", "4").message, hex("01 01 04"));
    EXPECT_EQ(qv::writeRequest("qv-ip-addr", "10.0.0.5").message, hex("01 02 31 30 2E 30 2E 30 2E 35 00"));
    EXPECT_EQ(qv::writeRequest("qv-text-1", "a").message, hex("01 03 61 00"));
    EXPECT_EQ(qv::writeRequest("qv-text-2", "").message, hex("01 04 00"));
    EXPECT_EQ(qv::writeRequest("time-zone", "0x01020304").message, hex("01 05 04 03 02 01"));
    EXPECT_EQ(qv::writeRequest("time-zone-flag", "yes").message, hex("01 06 01"));

    EXPECT_EQ(qv::callRequest("set-time", Args{"@1"}).message, hex("02 00 01 00 00 00 00 00 00 00"));
    EXPECT_EQ(qv::callRequest("set-cfg-str", Args{"K", ""}).message, hex("02 01 4B 00 00"));
    EXPECT_EQ(qv::callRequest("set-cfg-long", Args{"K", "-1"}).message, hex("02 02 4B 00 FF FF FF FF"));
    EXPECT_EQ(qv::callRequest("apply-config", Args{}).message, hex("02 03"));
    EXPECT_EQ(qv::callRequest("start-update", Args{}).message, hex("02 04"));
    EXPECT_EQ(qv::callRequest("emu-input-ev", Args{}).message, hex("02 05"));
    EXPECT_EQ(qv::callRequest("set-brightness", Args{"80"}).message, hex("02 06 50"));
    EXPECT_EQ(qv::callRequest("set-brightness-raw", Args{"80"}).message, hex("02 07 50"));
    EXPECT_EQ(qv::callRequest("beep-param", Args{"1", "0x203"}).message, hex("02 08 01 00 03 02"));
    EXPECT_EQ(qv::callRequest("beep", Args{}).message, hex("02 09"));
    EXPECT_EQ(qv::callRequest("clear-start-code", Args{}).message, hex("02 0A"));
    EXPECT_EQ(qv::callRequest("app-triggered-update", Args{"/u"}).message, hex("02 0B 2F 75 00"));
    EXPECT_FALSE(qv::callRequest("beep", Args{}).safeToRepeat);
}

TEST(Request, ArgumentsGoByNameInAnyOrder)
{
    EXPECT_EQ(qv::callRequest("set-cfg-long", Args{"value=5", "key=K"}).message,
              qv::callRequest("set-cfg-long", Args{"K", "5"}).message);
    EXPECT_EQ(qv::callRequest("set-cfg-str", Args{"VisuURL", "http://h/?a=b"}).message.back(), 0)
        << "an equals sign behind anything else is part of the value";
}

TEST(Request, NetworkFieldsHaveDefaults)
{
    EXPECT_EQ(qv::callRequest("set-network-cfg", Args{}).message,
              hex("02 0C 65 74 68 30 00 44 68 63 70 43 6C 69 65 6E 74 00 00 00 00 00 00 01 00 00 00"));
    const auto set =
        qv::callRequest("set-network-cfg", Args{"mode=static", "dns-mode=given", "dns-server-2=9", "netmask=m"});
    EXPECT_EQ(set.message, hex("02 0C 65 74 68 30 00 73 74 61 74 69 63 00 00 6D 00 00 00 00 00 00 00 39 00"));
}

TEST(Request, NetworkFieldsComeFromAFile)
{
    const auto name = testing::TempDir() + "qv-network-" + std::to_string(getpid());
    std::ofstream(name) << "# our lab\n\n  mode = static\nip-address=10.0.0.7 \nhostname = a b\n";
    const auto request = qv::callRequest("set-network-cfg", Args{"@" + name, "mode=x"});
    EXPECT_EQ(
        qv::describeRequest(request.message),
        "call set-network-cfg interface=eth0 mode=x ip-address=10.0.0.7 netmask= gateway= hostname=a b dns-domain= "
        "dns-mode=dhcp dns-server-0= dns-server-1= dns-server-2=");
    std::ofstream(name) << "mode static\n";
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }),
              name + ":1: 'name = value' is expected");
    std::ofstream(name) << "mode = x\ncolor = red\n";
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }),
              name +
                  ":2: set-network-cfg has no argument 'color': call set-network-cfg [interface] [mode] [ip-address] "
                  "[netmask] [gateway] [hostname] [dns-domain] [dns-mode] [dns-server-0] [dns-server-1] "
                  "[dns-server-2]");
    std::ofstream(name) << "hostnam = a\n";
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }),
              name + ":1: set-network-cfg has no argument 'hostnam'; did you mean hostname?");
    std::ofstream(name) << "# ours\n\ndns-mode = foo\n";
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }),
              name + ":3: dns-mode: 'foo' will not do: given (0), dhcp (1), none (2) or a number up to 255");
    std::ofstream(name) << "mode = x\nmode = y\n";
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }), name + ":2: mode is given twice");
    std::remove(name.c_str());
    EXPECT_EQ(errorOf([&] { qv::callRequest("set-network-cfg", Args{"@" + name}); }),
              "cannot read " + name + ": No such file or directory");
}

TEST(Request, WhatIsTypedWinsOverTheFileWhereverItStands)
{
    const auto name = testing::TempDir() + "qv-network-" + std::to_string(getpid());
    std::ofstream(name) << "mode = static\n";
    const auto before = qv::callRequest("set-network-cfg", Args{"mode=x", "@" + name}).message;
    const auto behind = qv::callRequest("set-network-cfg", Args{"@" + name, "mode=x"}).message;
    EXPECT_EQ(before, qv::callRequest("set-network-cfg", Args{"mode=x"}).message);
    EXPECT_EQ(behind, before);
    std::remove(name.c_str());
}

TEST(Request, AFolderIsNoFile)
{
    EXPECT_EQ(errorOf([] { qv::callRequest("set-network-cfg", Args{"@."}); }), "cannot read .: Is a directory");
}

TEST(Request, AMistypedArgumentNameIsNoValue)
{
    EXPECT_EQ(errorOf([] { qv::callRequest("set-network-cfg", Args{"hostnam=x"}); }),
              "set-network-cfg has no argument 'hostnam'; did you mean hostname? "
              "(A text that holds an equals sign goes as interface=hostnam=x.)");
    EXPECT_EQ(errorOf([] {
                  qv::callRequest("set-cfg-str", Args{"kye=Foo", "value=x"});
              }),
              "set-cfg-str has no argument 'kye'; did you mean key? "
              "(A text that holds an equals sign goes as key=kye=Foo.)");
    EXPECT_EQ(errorOf([] {
                  qv::callRequest("set-cfg-str", Args{"Foo", "a_b=x"});
              }),
              "set-cfg-str has no argument 'a_b': call set-cfg-str key value "
              "(A text that holds an equals sign goes as value=a_b=x.)");
    EXPECT_EQ(errorOf([] {
                  qv::callRequest("beep-param", Args{"frst=1", "2"});
              }),
              "beep-param has no argument 'frst'; did you mean first?");
    EXPECT_EQ(qv::callRequest("set-cfg-str", Args{"Foo", "value=a=b"}).message, hex("02 01 46 6F 6F 00 61 3D 62 00"));
    EXPECT_EQ(qv::callRequest("set-cfg-str", Args{"Foo", "2=b"}).message, hex("02 01 46 6F 6F 00 32 3D 62 00"));
}

TEST(Request, AnArgumentIsGivenOnce)
{
    EXPECT_EQ(errorOf([] {
                  qv::callRequest("beep-param", Args{"first=5", "first=6", "second=7"});
              }),
              "first is given twice");
    EXPECT_EQ(errorOf([] { qv::callRequest("beep-param", Args{"first=5", "6", "7"}); }), "first is given twice");
    EXPECT_EQ(errorOf([] { qv::callRequest("beep-param", Args{"5", "first=6"}); }), "first is given twice");
}

TEST(Request, TheNetworkCommandTakesNamesOnly)
{
    EXPECT_EQ(qv::networkRequest(Args{"interface=usb0"}).message,
              qv::callRequest("set-network-cfg", Args{"usb0"}).message);
    EXPECT_EQ(errorOf([] { qv::networkRequest(Args{"usb0"}); }), "'usb0' is no name=value");
    EXPECT_EQ(errorOf([] { qv::networkRequest(Args{"hostnam=foo"}); }),
              "set-network-cfg has no argument 'hostnam'; did you mean hostname?");
    EXPECT_EQ(errorOf([] { qv::networkRequest(Args{"http://h/?a=b"}); }),
              "set-network-cfg has no argument 'http://h/?a': call set-network-cfg [interface] [mode] [ip-address] "
              "[netmask] [gateway] [hostname] [dns-domain] [dns-mode] [dns-server-0] [dns-server-1] [dns-server-2]");
}

TEST(Request, ItsTextCanBeTypedAgain)
{
    EXPECT_EQ(qv::writeRequest("qv-text-1", "a b").text, "write qv-text-1 'a b'");
    EXPECT_EQ(qv::writeRequest("qv-text-1", "").text, "write qv-text-1 ''");
    EXPECT_EQ(qv::callRequest("set-cfg-str", Args{"K", "a b"}).text, "call set-cfg-str K 'a b'");
}

TEST(Request, WhatIsNotInTheTableGoesByNumberAndBytes)
{
    EXPECT_EQ(qv::readRequest("10").message, hex("00 0A"));
    EXPECT_FALSE(qv::readRequest("10").replyType);
    EXPECT_EQ(qv::writeRequest("7", "1,0x22").message, hex("01 07 01 22"));
    EXPECT_EQ(qv::callRequest("13", Args{"1,2", "3"}).message, hex("02 0D 01 02 03"));
}

TEST(Request, MistakesAreExplained)
{
    EXPECT_EQ(errorOf([] { qv::readRequest("brightnes-raw"); }),
              "there is no register to read called 'brightnes-raw'; did you mean brightness-raw?");
    EXPECT_EQ(errorOf([] { qv::readRequest("bright"); }),
              "there is no register to read called 'bright'; did you mean brightness-raw?");
    EXPECT_EQ(errorOf([] { qv::writeRequest("zzz", "1"); }),
              "there is no register to write called 'zzz'; 'list' shows all");
    EXPECT_EQ(errorOf([] { qv::writeRequest("brightness-raw", "5"); }),
              "there is no register to write called 'brightness-raw'; it can only be read; "
              "to set it: call set-brightness-raw");
    EXPECT_EQ(errorOf([] { qv::writeRequest("ip-addr", "5"); }),
              "there is no register to write called 'ip-addr'; it can only be read");
    EXPECT_EQ(errorOf([] { qv::readRequest("qv-status"); }),
              "there is no register to read called 'qv-status'; it can only be written");
    EXPECT_EQ(errorOf([] { qv::readRequest("set-time"); }),
              "there is no register to read called 'set-time'; it is a method: call set-time time");
    EXPECT_EQ(errorOf([] { qv::callRequest("qv-status", Args{"1"}); }),
              "there is no method called 'qv-status'; it is a register: write qv-status VALUE");
    EXPECT_EQ(errorOf([] { qv::callRequest("start-code", Args{}); }),
              "there is no method called 'start-code'; it is a register: read start-code");
    EXPECT_EQ(errorOf([] { qv::callRequest("SET-BRIGHTNESS", Args{"1"}); }),
              "there is no method called 'SET-BRIGHTNESS'; did you mean set-brightness?");
    EXPECT_EQ(errorOf([] { qv::writeRequest("ip", "1"); }),
              "there is no register to write called 'ip'; did you mean qv-ip-addr?");
    EXPECT_EQ(errorOf([] { qv::readRequest("256"); }), "256 is out of range: 0 to 255");
    EXPECT_EQ(errorOf([] { qv::readRequest("-1"); }), "-1 is out of range: 0 to 255");
    EXPECT_EQ(errorOf([] { qv::callRequest("1000", Args{}); }), "1000 is out of range: 0 to 255");
    EXPECT_EQ(errorOf([] { qv::callRequest("bep", Args{}); }), "there is no method called 'bep'; did you mean beep?");
    EXPECT_EQ(errorOf([] { qv::writeRequest("qv-status", "x"); }),
              "qv-status: 'x' is no number (80, 0x50, 0o120 and 0b1010000 are)");
    EXPECT_EQ(errorOf([] { qv::callRequest("set-cfg-long", Args{"K"}); }),
              "value is missing: call set-cfg-long key value");
    EXPECT_EQ(errorOf([] { qv::callRequest("beep", Args{"1"}); }), "'1' is one argument too many: call beep");
}

TEST(Request, IsDescribed)
{
    EXPECT_EQ(qv::describeRequest(hex("00 09")), "read brightness-raw");
    EXPECT_EQ(qv::describeRequest(hex("01 01 04")), "write qv-status 4");
    EXPECT_EQ(qv::describeRequest(hex("01 01 04 05")), "write qv-status 4 + 05");
    EXPECT_EQ(qv::describeRequest(hex("02 02 4B 00 FF FF FF FF")), "call set-cfg-long key=K value=-1");
    EXPECT_EQ(qv::describeRequest(hex("02 63")), "call 99");
    EXPECT_EQ(qv::describeRequest(hex("07 63")), "command 7 99");
    EXPECT_EQ(qv::describeRequest(hex("02")), "02");
}

} // namespace
