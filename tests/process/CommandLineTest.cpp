#include "tests/process/RigTest.h"

#include <fcntl.h>
#include <termios.h>

namespace {

using namespace rig;
using sim::match::call;

using Arguments = std::vector<std::string>;

std::string invalid(const std::string& option)
{
    return std::string(kVorlan) + ": invalid option -- '" + option + "'\n";
}

std::string unrecognized(const std::string& option)
{
    return std::string(kVorlan) + ": unrecognized option '" + option + "'\n";
}

struct tRefused
{
    const char* name;
    Arguments arguments;
    std::string err; ///< getopt's own line
};

void PrintTo(const tRefused& row, std::ostream* out)
{
    *out << row.name;
}

/// The buses are not even started: the command line comes first.
class RefusedCommandLine : public ::testing::TestWithParam<tRefused>
{
protected:
    sim::TempDir mFolder;
    sim::Timeline mTimeline;
    sim::PrivateBus mSystemBus{mFolder.path(), "system"};
    sim::PrivateBus mUserBus{mFolder.path(), "user"};
    sim::Daemon mDaemon{mTimeline, mSystemBus, mUserBus};
};

TEST_P(RefusedCommandLine, givesTheUsageAndStatusOne)
{
    mDaemon.start(kVorlan, GetParam().arguments);
    EXPECT_EQ(mDaemon.waitExit(), sim::exited(1));
    EXPECT_EQ(mDaemon.out(), std::string(kStarted) + kUsage);
    EXPECT_EQ(mDaemon.err(), GetParam().err);
}

const tRefused kRefused[] = {
    {"ShortHelp", {"-h"}, ""},
    {"LongHelp", {"--help"}, ""},
    {"AbbreviatedHelp", {"--he"}, ""},
    {"QuestionMark", {"-?"}, ""},
    {"HelpAfterGoodOptions", {"-s", "/dev/null", "-b", "9600", "-h"}, ""},
    {"HelpWithAnArgument", {"--help=me"}, std::string(kVorlan) + ": option '--help' doesn't allow an argument\n"},
    {"UnknownShort", {"-x"}, invalid("x")},
    {"UnknownShortAmongKnown", {"-b", "9600", "-y"}, invalid("y")},
    {"UnknownInACluster", {"-qh"}, invalid("q")},
    {"UnknownLong", {"--verbose"}, unrecognized("--verbose")},
    {"UnknownLongWithAValue", {"--baud-rate=9600"}, unrecognized("--baud-rate=9600")},
    {"OnlyTheFirstErrorIsSeen", {"-x", "-b", "abc", "-y"}, invalid("x")},
    {"MissingArgumentOfShortS", {"-s"}, std::string(kVorlan) + ": option requires an argument -- 's'\n"},
    {"MissingArgumentOfShortB", {"-b"}, std::string(kVorlan) + ": option requires an argument -- 'b'\n"},
    {"MissingArgumentOfLongS", {"--serialdev"}, std::string(kVorlan) + ": option '--serialdev' requires an argument\n"},
    {"MissingArgumentOfLongB",
     {"-s", "x", "--baudrate"},
     std::string(kVorlan) + ": option '--baudrate' requires an argument\n"},
    {"RateWithoutDigits", {"-b", "abc"}, ""},
    {"EmptyRate", {"-b", ""}, ""},
    {"EmptyLongRate", {"--baudrate="}, ""},
    {"BlankRate", {"-b", "  "}, ""},
    {"OnlyASign", {"-b", "-"}, ""},
    {"SignAndLetters", {"-b", "+x"}, ""},
    {"TwoSigns", {"-b", "--9600"}, ""},
    {"LettersBeforeDigits", {"-b", "x9600"}, ""},
    {"RateOfTwentyDigits", {"-b", "12345678901234567890"}, ""},
    {"RateOfTwentyDigitsBelowZero", {"-b", "-12345678901234567890"}, ""},
    {"RateJustBeyond32Bits", {"-b", "2147483648"}, ""},
    {"RateJustBelow32Bits", {"-b", "-2147483649"}, ""},
    {"UnsignedMaximum", {"-b", "4294967295"}, ""},
    {"BadRateBeforeAGoodOne", {"-b", "abc", "-b", "9600"}, ""},
    {"BadRateAfterAGoodOne", {"-b", "9600", "-b", "abc"}, ""},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, RefusedCommandLine, ::testing::ValuesIn(kRefused),
                         [](const auto& row) { return row.param.name; });

TEST(CommandLine, getoptsLineComesBeforeTheUsage)
{
    sim::TempDir folder;
    sim::Timeline timeline;
    const sim::PrivateBus bus(folder.path(), "none");
    sim::Daemon daemon(timeline, bus, bus);
    sim::Daemon::tOptions options;
    options.wrapper = {"/bin/sh", "-c", R"(exec "$0" "$@" 2>&1)"};
    options.arguments = {"-b", "9600", "-x"};
    daemon.start(kVorlan, options);
    EXPECT_EQ(daemon.waitExit(), sim::exited(1));
    EXPECT_EQ(daemon.out(), kStarted + invalid("x") + kUsage);
}

TEST(CommandLine, theLastUsageLineHasItsBackspace)
{
    sim::TempDir folder;
    sim::Timeline timeline;
    const sim::PrivateBus bus(folder.path(), "none");
    sim::Daemon daemon(timeline, bus, bus);
    daemon.start(kVorlan, {"-h"});
    ASSERT_EQ(daemon.waitExit(), sim::exited(1));
    const std::string out = daemon.out();
    const std::string last = out.substr(out.rfind('\n', out.size() - 2) + 1);
    EXPECT_EQ(last.size(), 45U + 1);
    EXPECT_EQ(last.find('\x08'), std::string("-b, --baudrate=<num>").size());
    EXPECT_EQ(countOf(out, "\n"), 6U);
}

/// Where the accepted options lead to. A rate of nothing stands for the configured device and rate.
struct tAccepted
{
    const char* name;
    Arguments arguments; ///< "DEV" becomes the path of the second line
    std::optional<speed_t> speed;
};

void PrintTo(const tAccepted& row, std::ostream* out)
{
    *out << row.name;
}

class AcceptedCommandLine : public RigTest, public ::testing::WithParamInterface<tAccepted>
{
protected:
    speed_t speedOf(const sim::Pty& line)
    {
        const sim::UniqueFd device(open(line.slavePath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        termios settings{};
        EXPECT_EQ(tcgetattr(device.get(), &settings), 0);
        return cfgetospeed(&settings);
    }

    bool answers(const sim::Pty& line)
    {
        qv::Port port = qv::Port::adopt(fcntl(line.master(), F_DUPFD_CLOEXEC, 3));
        qv::tPeerOptions options;
        options.timeout = kDeadline;
        return qv::Peer(port, options).sync();
    }

    sim::Pty mOther;
};

TEST_P(AcceptedCommandLine, opensTheDeviceAtTheRate)
{
    mRig.device().sysd().setCfg("VorlanBaud", 57600);
    sim::Daemon::tOptions options;
    for (const std::string& argument : GetParam().arguments) {
        const std::size_t at = argument.find("DEV");
        options.arguments.push_back(at == std::string::npos ? argument
                                                            : std::string(argument).replace(at, 3, mOther.path()));
    }
    mRig.start(options);
    const bool given = GetParam().speed.has_value();
    const sim::Pty& line = given ? mOther : mRig.device().line();
    ASSERT_TRUE(answers(line));
    EXPECT_EQ(speedOf(line), GetParam().speed.value_or(B57600));
    EXPECT_EQ(mRig.timeline().count(call("GetCfgString", "\"VorlanDev\"")), given ? 0U : 1U);
    EXPECT_EQ(mRig.timeline().count(call("GetCfgInt", "\"VorlanBaud\"")), given ? 0U : 1U);
    ASSERT_TRUE(mRig.daemon().waitForOutput(kStarted));
    EXPECT_EQ(mRig.daemon().out(), kStarted);
}

const tAccepted kAccepted[] = {
    {"NoOptions", {}, {}},
    {"DeviceWithoutRate", {"-s", "DEV"}, {}},
    {"DeviceWithRateZero", {"-s", "DEV", "-b", "0"}, {}},
    {"ZeroInOtherWords", {"-s", "DEV", "-b", "-000x"}, {}},
    {"HexIsZero", {"-s", "DEV", "-b", "0x2580"}, {}},
    {"LaterZeroOverrides", {"-s", "DEV", "-b", "9600", "-b", "0"}, {}},
    {"AfterTheEndOfOptions", {"--", "-s", "DEV", "-b", "9600"}, {}},
    {"DeviceThenRate", {"-s", "DEV", "-b", "9600"}, B9600},
    {"RateThenDevice", {"-b", "115200", "-s", "DEV"}, B115200},
    {"Attached", {"-sDEV", "-b9600"}, B9600},
    {"Long", {"--serialdev", "DEV", "--baudrate", "19200"}, B19200},
    {"LongAttached", {"--serialdev=DEV", "--baudrate=19200"}, B19200},
    {"Abbreviated", {"--ser=DEV", "--b", "19200"}, B19200},
    {"LaterDeviceOverrides", {"-s", "/nowhere", "-b", "9600", "-s", "DEV"}, B9600},
    {"LaterRateOverrides", {"-b", "9600", "-s", "DEV", "--baudrate=38400"}, B38400},
    {"OtherWordsAround", {"one", "-b", "9600", "two", "-s", "DEV", "three"}, B9600},
    {"LettersBehindDigits", {"-s", "DEV", "-b", "9600xyz"}, B9600},
    {"LeadingBlanks", {"-s", "DEV", "-b", " \t\n9600"}, B9600},
    {"LeadingPlus", {"-s", "DEV", "-b", "+9600"}, B9600},
    {"LeadingZeros", {"-s", "DEV", "-b", "0000009600"}, B9600},
    {"FractionIsCut", {"-s", "DEV", "-b", "9600.9"}, B9600},
    {"UnknownRateIsB0", {"-s", "DEV", "-b", "14400"}, B0},
    {"MinusOneIs4294967295", {"-s", "DEV", "-b", "-1"}, B0},
    {"LargestRate", {"-s", "DEV", "-b", "2147483647"}, B0},
    {"SmallestNumber", {"-s", "DEV", "-b", "-2147483648"}, B0},
};

INSTANTIATE_TEST_SUITE_P(CommandLine, AcceptedCommandLine, ::testing::ValuesIn(kAccepted),
                         [](const auto& row) { return row.param.name; });

} // namespace
