#include "qv/Values.h"
#include "tests/qv/DeviceFixture.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr const char* kBootExample = QV_BOOT_EXAMPLE;

TEST_F(CommandTest, ReadsEveryRegister)
{
    startDaemon();
    const auto run = qvCommand({"read", "const-0", "cfg-applied", "ip-addr", "param-text", "hundredths-list",
                                "byte-list", "param-word-a", "param-word-b", "start-code", "brightness-raw"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "const-0          0\n"
                       "cfg-applied      false\n"
                       "ip-addr          192.168.10.20\n"
                       "param-text       1.4.2\n"
                       "hundredths-list  23.00,-4.00\n"
                       "byte-list        1,2,3;9\n"
                       "param-word-a     1280\n"
                       "param-word-b     800\n"
                       "start-code       0\n"
                       "brightness-raw   200\n");
    EXPECT_EQ(run.err, "");
}

TEST_F(CommandTest, ReadsByNumberQuietlyAndAsJson)
{
    startDaemon();
    EXPECT_EQ(qvCommand({"-q", "read", "9", "0x7"}).out, "200\n800\n");
    const auto run = qvCommand({"--json", "read", "ip-addr", "byte-list"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, R"({"request":"read ip-addr","name":"ip-addr","number":2,"value":"192.168.10.20"})"
                       "\n"
                       R"({"request":"read byte-list","name":"byte-list","number":5,"value":{"list":[1,2,3],"last":9}})"
                       "\n");
}

TEST_F(CommandTest, ARegisterThatIsNotThereHasNoAnswer)
{
    startDaemon();
    ASSERT_EQ(qvCommand({"read", "0"}).status, 0);
    const auto run = qvCommand({"--timeout", "300", "--tries", "2", "read", "10"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, HasSubstr("read 10: no answer: nothing at all came back in 2 tries of 300 ms."));
    EXPECT_THAT(run.err, HasSubstr("The daemon never answers the read of a register that it does not have"));
}

TEST_F(CommandTest, WritesRegisters)
{
    startDaemon();
    EXPECT_EQ(qvCommand({"write", "qv-ip-addr", "10.0.0.5"}).out, "done\n");
    EXPECT_EQ(calls("SetParamString", "214, \"10.0.0.5\""), 1U);
    EXPECT_EQ(qvCommand({"-q", "write", "time-zone", "0x1C"}).out, "");
    EXPECT_EQ(calls("SetTimeZone", "28, true"), 1U);
    const auto run = qvCommand({"--json", "write", "qv-prot-version", "7"});
    EXPECT_EQ(run.out,
              "{\"request\":\"write qv-prot-version 7\",\"name\":\"qv-prot-version\",\"number\":0,\"done\":true}\n");
    EXPECT_EQ(run.status, 0);
}

TEST_F(CommandTest, CallsMethods)
{
    startDaemon();
    EXPECT_EQ(qvCommand({"call", "set-brightness", "80"}).out, "done\n");
    EXPECT_EQ(calls("SetBrightness", "80"), 1U);
    EXPECT_EQ(qvCommand({"call", "set-cfg-long", "Startmode", "-5"}).status, 0) << "a negative number is no option";
    EXPECT_EQ(calls("SetCfgInt", "\"Startmode\", -5"), 1U);
    EXPECT_EQ(qvCommand({"call", "set-cfg-str", "value=two words", "key=VisuURL"}).status, 0);
    EXPECT_EQ(calls("SetCfgString", "\"VisuURL\", \"two words\""), 1U);
    EXPECT_EQ(qvCommand({"call", "beep-param", "1", "0x203"}).status, 0);
    EXPECT_EQ(calls("BeepParam", "1, 515"), 1U);
    EXPECT_EQ(qvCommand({"call", "set-time", "2024-05-06 07:08:09"}).status, 0);
    EXPECT_EQ(calls("SetUnixTime", "1714979289"), 1U);
    EXPECT_EQ(qvCommand({"call", "set-cfg-str", "VisuURL", "--", "-x"}).status, 0);
    EXPECT_EQ(calls("SetCfgString", "\"VisuURL\", \"-x\""), 1U) << "behind -- nothing is an option";
    EXPECT_EQ(qvCommand({"call", "set-cfg-str", "VisuURL", "\x01-\x01"}).status, 0);
    EXPECT_EQ(mRig.timeline().count(sim::match::call("SetCfgString").withPart("\\x01-\\x01")), 1U);
    EXPECT_EQ(qvCommand({"call", "--", "set-cfg-str", "VisuURL", "--help"}).status, 0);
    EXPECT_EQ(calls("SetCfgString", "\"VisuURL\", \"--help\""), 1U);
}

TEST_F(CommandTest, TellsOfARefusal)
{
    startDaemon();
    const auto run = qvCommand({"call", "set-cfg-str", "", "x"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err,
                StartsWith("call set-cfg-str '' x: refused by the device (error bit set); nothing was done.\n"));
    EXPECT_EQ(qvCommand({"call", "13"}).status, 1) << "a method that the daemon does not have";
    EXPECT_EQ(qvCommand({"write", "7", "1"}).status, 1) << "a register that the daemon does not have";
    EXPECT_THAT(qvCommand({"--json", "call", "13"}).out, HasSubstr("\"error\":\"refused\""));
}

TEST_F(CommandTest, SetsUpTheNetwork)
{
    startDaemon();
    ASSERT_EQ(qvCommand({"call", "apply-config"}).status, 0);
    const auto file = mRig.device().folder() + "/network";
    std::ofstream(file) << "# the bench\nmode = static\nip-address = 10.0.0.7\nnetmask = 255.255.255.0\n";
    const auto run = qvCommand(
        {"network", "--file", file, "--netmask", "255.255.0.0", "--dns-mode", "given", "--dns-server-0", "10.0.0.1"});
    EXPECT_EQ(run.status, 0) << run.err;
    const auto call = mRig.timeline().find(sim::match::call("ConfigureNetIf"));
    ASSERT_TRUE(call);
    EXPECT_THAT(call->arguments, HasSubstr("10.0.0.7"));
    EXPECT_THAT(call->arguments, HasSubstr("255.255.0.0"));
    EXPECT_THAT(call->arguments, Not(HasSubstr("255.255.255.0"))) << "options win over the file";
    EXPECT_THAT(call->arguments, HasSubstr("10.0.0.1"));
}

TEST_F(CommandTest, PlaysTheStartUpThatShips)
{
    startDaemon();
    const auto run = qvCommand({"boot", kBootExample});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_THAT(run.out, StartsWith("write qv-prot-version 1\ncall set-time now\n"));
    EXPECT_THAT(run.out, EndsWith("read start-code\nstart-code  0\ncall clear-start-code\n"));
    EXPECT_TRUE(mRig.timeline().waitFor(sim::match::call("SetParamInt", "0, 2"))) << "the visualisation starts";
    const auto url = mRig.timeline().waitFor(sim::match::call("SetParamString").withPart("90, "));
    ASSERT_TRUE(url);
    EXPECT_EQ(url->arguments, "90, \"http://192.168.10.1/visu\"");
    EXPECT_EQ(mRig.timeline().count(sim::match::call("ConfigureNetIf")), 1U);
}

TEST_F(CommandTest, AStartUpStopsWhereItFails)
{
    startDaemon();
    const auto file = mRig.device().folder() + "/boot";
    std::ofstream(file) << "# comment\n\n  call beep\ncall set-cfg-str '' x\ncall beep\n";
    const auto run = qvCommand({"-q", "boot", file});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, EndsWith(file + ":4: stopped here\n"));
    EXPECT_EQ(calls("Beep", ""), 1U);
    EXPECT_EQ(qvCommand({"boot", "/no/such/file"}).status, 2);
    std::ofstream(file) << "call beep\njump\n";
    EXPECT_EQ(qvCommand({"boot", file}).status, 2);
}

TEST_F(CommandTest, MeasuresRoundTrips)
{
    startDaemon();
    const auto run = qvCommand({"ping", "--count", "50"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, StartsWith("50 requests, 50 answered, 0 repeats\nminimum "));
    EXPECT_EQ(std::ranges::count(run.out, '\n'), 12) << "two lines and ten bars";
    EXPECT_THAT(qvCommand({"--json", "ping", "--count", "5"}).out,
                StartsWith(R"({"request":"ping","sent":5,"answered":5,"repeats":0,"minMs":)"));
}

TEST_F(CommandTest, WatchesARegister)
{
    startDaemon();
    EXPECT_EQ(qvCommand({"-q", "watch", "brightness-raw", "--every", "1", "--count", "3"}).out, "200\n");
    const auto run = qvCommand({"watch", "ip-addr", "--every", "1", "--count", "1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, EndsWith("  ip-addr  192.168.10.20\n"));
}

TEST_F(CommandTest, ShowsEachFrame)
{
    startDaemon();
    const auto run = qvCommand({"--trace", "read", "brightness-raw"});
    EXPECT_EQ(run.out, "brightness-raw  200\n");
    for (const auto* part :
         {"-->  get in step: ", "reset flag", "<--  reply: ", "-->  request: ", "brightness-raw 200", "CRC, right"}) {
        EXPECT_THAT(run.err, HasSubstr(part));
    }
}

TEST_F(CommandTest, WorksOnABadLine)
{
    startDaemon();
    const auto run = qvCommand({"--lose",  "0.2",        "--corrupt",
                                "0.1",     "--stray",    "0.05",
                                "--split", "--delay",    "3",
                                "--burst", "2",          "--seed",
                                "3",       "--timeout",  "100",
                                "--tries", "50",         "-t",
                                "-q",      "read",       "brightness-raw",
                                "ip-addr", "param-text", "brightness-raw",
                                "ip-addr", "param-text"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "200\n192.168.10.20\n1.4.2\n200\n192.168.10.20\n1.4.2\n");
    EXPECT_THAT(run.err, HasSubstr("repeat (sending 2)"));
}

TEST_F(CommandTest, RunsCommandsFromAPipe)
{
    startDaemon();
    const auto run = qvCommand({"shell"}, "read ip-addr\n\n# no\nhelp set-cfg-long\ncall beep\nquit\ncall beep\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, StartsWith("ip-addr  192.168.10.20\n"));
    EXPECT_THAT(run.out, HasSubstr("call set-cfg-long key value"));
    EXPECT_EQ(calls("Beep", ""), 1U) << "nothing after quit";
    EXPECT_EQ(qvCommand({"shell"}, "call set-cfg-str '' x\n").status, 1);
}

TEST_F(CommandTest, SaysWhyNothingAnswers)
{
    const auto run = qvCommand({"--timeout", "20", "--tries", "2", "read", "brightness-raw"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, StartsWith("read brightness-raw: no answer: nothing at all came back in 2 tries of 20 ms.\n"));
    EXPECT_THAT(run.err, HasSubstr("Is the daemon running on the device (systemctl status vorlan)?"));
    EXPECT_THAT(run.err, HasSubstr("115200 bit/s"));
    EXPECT_THAT(qvCommand({"--json", "--timeout", "20", "--tries", "2", "call", "beep"}).out,
                HasSubstr("\"error\":\"no answer\",\"mayBeDone\":false"));
}

TEST(Usage, ListNeedsNoPort)
{
    const auto run = runCommand({"list"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, HasSubstr("brightness-raw"));
    EXPECT_THAT(run.out, HasSubstr("set-network-cfg"));
    for (const auto& table : {std::span<const wire::tRegister>(wire::kReadRegisters),
                              std::span<const wire::tRegister>(wire::kWriteRegisters)}) {
        for (const auto& reg : table) {
            EXPECT_THAT(run.out, HasSubstr(reg.value.name));
            EXPECT_THAT(run.out, HasSubstr(reg.value.meaning));
        }
    }
    EXPECT_THAT(runCommand({"--json", "list"}).out, StartsWith(R"({"read":[{"address":0,)"));
}

TEST(Usage, MistakesHaveStatus2)
{
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"jump"},
        {"read"},
        {"read", "ip-addr"}, // no port
        {"--port", "/dev/null", "--baud", "14400", "read", "ip-addr"},
        {"--port", "/dev/null", "--baud", "fast", "read", "ip-addr"},
        {"--port", "/dev/null", "--lose", "2", "read", "ip-addr"},
        {"--port", "/dev/null", "--timeout", "0", "read", "ip-addr"},
        {"--port", "/dev/null", "write", "qv-status"},
        {"--port", "/dev/null", "network", "--file", "/no/such/file"},
        {"--no-such-option", "list"},
        {"--port", "/dev/null", "--lose", "nan", "read", "ip-addr"},
        {"--port", "/dev/null", "--burst", "0", "read", "ip-addr"},
        {"--port", "/no/such/port", "read", "brightnes"},
        {"--port", "/no/such/port", "boot", "/no/such/file"},
        {"--port", "/no/such/port", "call", "set-time", "2040-01-01"},
    };
    for (const auto& arguments : mistakes) {
        const auto run = runCommand(arguments);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(run.err, Not(IsEmpty()));
        EXPECT_EQ(run.out, "");
    }
}

/// The first line of what vorlan-qv says to a mistake.
std::string complaintOf(const std::vector<std::string>& arguments)
{
    const auto run = runCommand(arguments);
    EXPECT_EQ(run.status, 2) << testing::PrintToString(arguments);
    return run.err.substr(0, run.err.find('\n'));
}

TEST(Usage, MistakesAreNamed)
{
    EXPECT_EQ(complaintOf({"raed", "0"}), "vorlan-qv: there is no command 'raed'; did you mean read?");
    EXPECT_EQ(complaintOf({"frobnicate"}), "vorlan-qv: there is no command 'frobnicate'");
    EXPECT_EQ(complaintOf({"--prt", "x"}), "vorlan-qv: there is no option '--prt'");
    EXPECT_EQ(complaintOf({"--prt", "x", "read", "0"}), "vorlan-qv: there is no option '--prt'");
    EXPECT_EQ(complaintOf({"read", "0", "--prt=x"}), "vorlan-qv: there is no option '--prt=x'");
    EXPECT_EQ(complaintOf({"call", "set-cfg-str", "Foo", "-x"}),
              "vorlan-qv: there is no option '-x'; a value that begins with - goes behind --");
    EXPECT_EQ(complaintOf({"write", "qv-text-1", "--foo"}),
              "vorlan-qv: there is no option '--foo'; a value that begins with - goes behind --");
    EXPECT_EQ(complaintOf({"list", "foo"}), "vorlan-qv: 'foo' is one word too many");
    EXPECT_EQ(complaintOf({}), "vorlan-qv: a command is missing");
    EXPECT_EQ(complaintOf({"ping", "--count", "0"}), "vorlan-qv: --count: 0 is out of range: 1 to 4294967295");
    EXPECT_EQ(complaintOf({"ping", "--count", "-1"}), "vorlan-qv: --count: -1 is out of range: 1 to 4294967295");
    EXPECT_EQ(complaintOf({"watch", "0", "--every", "3000000000"}),
              "vorlan-qv: --every: 3000000000 is out of range: 0 to 2147483647");
    EXPECT_EQ(complaintOf({"--lose", "nan", "read", "0"}), "vorlan-qv: --lose: 'nan' is no probability: 0 to 1");
}

TEST_F(CommandTest, MistakesInNamesAndValuesHaveStatus2AndSendNothing)
{
    for (const auto& arguments : std::vector<std::vector<std::string>>{{"read", "brightnes"},
                                                                       {"write", "qv-status", "many"},
                                                                       {"call", "set-brightness"},
                                                                       {"call", "set-brightness", "1", "2"},
                                                                       {"watch", "nothing"}}) {
        const auto run = qvCommand(arguments);
        EXPECT_EQ(run.status, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(run.err, Not(IsEmpty()));
    }
}

TEST(Usage, NumbersThatBeginWithZeroAreDecimal)
{
    const auto run = runCommand({"--port", "/dev/null", "--baud", "0115200", "read", "0"});
    EXPECT_THAT(run.err, HasSubstr("/dev/null is not a serial port")) << "and there is such a rate";
    EXPECT_EQ(complaintOf({"--timeout", "0600001", "read", "0"}),
              "vorlan-qv: --timeout: 0600001 is out of range: 1 to 600000");
}

TEST(Usage, ABadRateInTheEnvironmentIsNamedWhereALineIsNeeded)
{
    const std::vector<std::string> with{"/usr/bin/env", "VORLAN_QV_BAUD=fast", kVorlanQv, "--port", "/dev/null"};
    const auto status = [&](std::initializer_list<std::string> words, std::string& err) {
        auto argv = with;
        argv.insert(argv.end(), words);
        const auto run = runProgram(argv);
        err = run.err;
        return run.status;
    };
    std::string err;
    EXPECT_EQ(status({"list"}, err), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(status({"read", "0"}, err), 2);
    EXPECT_EQ(err, "vorlan-qv: VORLAN_QV_BAUD: 'fast' is no rate\n");
    EXPECT_EQ(status({"--baud", "9600", "read", "0"}, err), 3) << "the option wins";
    const auto odd = runProgram({"/usr/bin/env", "VORLAN_QV_BAUD=010", kVorlanQv, "--port", "/dev/null", "read", "0"});
    EXPECT_THAT(odd.err, StartsWith("vorlan-qv: VORLAN_QV_BAUD: no such rate; there are 50, "));
}

TEST(Usage, MistakesAreJsonToo)
{
    const std::string file = testing::TempDir() + "/qv-mistakes." + std::to_string(getpid());
    std::ofstream(file) << "call beep\nread 'x\njump 'a b'\n";
    const auto run = runCommand({"--json", "--port", "/no/such/port", "boot", file});
    std::filesystem::remove(file);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, R"({"request":"read 'x","error":"usage","mayBeDone":false,"message":")" + file +
                           R"(:2: a quotation mark ' is missing"})"
                           "\n"
                           R"({"request":"jump 'a b'","error":"usage","mayBeDone":false,"message":")" +
                           file +
                           R"(:3: there is no command 'jump'; there are read, write, call, network, watch, ping, )"
                           R"(list, trace"})"
                           "\n");
}

TEST(Usage, APortThatCannotBeOpenedHasStatus3)
{
    const auto run = runCommand({"--port", "/no/such/port", "read", "ip-addr"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, StartsWith("vorlan-qv: cannot open /no/such/port: No such file or directory\n"));
    EXPECT_EQ(runCommand({"--port", "/dev/null", "read", "ip-addr"}).status, 3);
}

TEST(Usage, HelpAloneShowsTheWay)
{
    const auto run = runCommand({"--help"});
    EXPECT_EQ(run.status, 0);
    for (const auto* part :
         {"read brightness-raw", "write qv-ip-addr", "nothing answers?", "vorlan-qv list", "Exit status"}) {
        EXPECT_THAT(run.out, HasSubstr(part));
    }
    EXPECT_THAT(runCommand({"network", "--help"}).out, HasSubstr("given, dhcp or none"));
    for (const auto* command : {"read", "write", "call", "network", "boot", "shell", "list", "watch", "ping"}) {
        EXPECT_THAT(runCommand({command, "--help"}).out, HasSubstr("vorlan-qv --help")) << command;
    }
    EXPECT_THAT(runCommand({"--version"}).out, MatchesRegex("vorlan-qv [0-9.]+\n"));
}

} // namespace
