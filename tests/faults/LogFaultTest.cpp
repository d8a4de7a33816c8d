#include "tests/faults/FaultTest.h"
#include "tests/support/LogOutput.h"

namespace {

using namespace rig;
using namespace std::chrono_literals;
using sim::exited;

constexpr char kUnknownCmd[] = "Vorlan: unknown cmd detected: 15\n";
constexpr char kBrightness[] = "Vorlan: readReg eRegRdDispBrightnessRaw 200\n";

/// Where the log goes.
struct tLog
{
    const char* name;
    const char* words;
    LogOutput (*open)();
    const char* redirections; ///< by the shell, of a standard output that is the log
    const char* line;         ///< that each request writes to it
};

void PrintTo(const tLog& row, std::ostream* out)
{
    *out << row.name;
}

/// The log is full from the start, and its reader stands still.
class LogFault : public FaultTest, public ::testing::WithParamInterface<tLog>
{
protected:
    void serveWithoutReader()
    {
        mFiller = mLog.fill();
        sim::Daemon::tOptions options;
        options.environment = kShortCalls;
        options.stdoutFd = mLog.fd();
        options.wrapper = {"/bin/sh", "-c", std::string("exec \"$0\" \"$@\" ") + GetParam().redirections};
        mRig.peer().setTimeout(10s); // a daemon that hangs is found soon
        ASSERT_TRUE(mRig.serve(options));
        ASSERT_TRUE(mRig.device().desktop().waitForService());
        mLog.closeWriteEnd();
    }

    /// A request that writes its line.
    std::string ask()
    {
        return GetParam().line == kUnknownCmd ? mRig.ask({0x0F, 0x00})
                                              : mRig.ask(readReg(wire::eRegRdDispBrightnessRaw));
    }

    std::string answer() const { return GetParam().line == kUnknownCmd ? "8f" : "00 c8"; }

    LogOutput mLog = GetParam().open();
    std::string mFiller;
};

TEST_P(LogFault, HoldsUpNoRequest)
{
    describe({std::string("the reader of ") + GetParam().words + " stands still",
              "everything but its lines, the first of them a second late; a line once the reader is back", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithoutReader());
    ASSERT_TRUE(mRig.playStory());
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(ask(), answer()) << i; // more lines than a socket holds, and all of it was full before
    std::string text;
    while (text.size() < mFiller.size()) {
        const std::string some = mLog.readSome(1U << 16U, 1000ms);
        ASSERT_NE(some, "");
        text += some;
    }
    faultIsOver();
    EXPECT_EQ(ask(), answer());
    EXPECT_EQ(text + mLog.readTo(GetParam().line), mFiller + GetParam().line);
    recovered();
    EXPECT_EQ(mRig.stop(), exited(0));
}

TEST_P(LogFault, HoldsUpNoStop)
{
    describe({std::string("stopped while the reader of ") + GetParam().words + " stands still",
              "the reply, status 0; the next start serves", 5s});
    ASSERT_NO_FATAL_FAILURE(serveWithoutReader());
    EXPECT_EQ(mRig.stopByUpdate(), exited(0));
    faultIsOver();
    mRig.start();
    ASSERT_TRUE(mRig.serves(left()));
    recovered();
}

const tLog kLogs[] = {
    {"Pipe", "the log, a pipe,", [] { return LogOutput::pipe(); }, "2>&1", kUnknownCmd},
    {"Socket", "the log, a socket,", [] { return LogOutput::socket(SOCK_STREAM); }, "2>&1", kUnknownCmd},
    {"Output", "standard output", [] { return LogOutput::pipe(); }, "2>/dev/null", kBrightness},
    {"Errors", "standard error", [] { return LogOutput::pipe(); }, "2>&1 1>/dev/null", kUnknownCmd},
};

INSTANTIATE_TEST_SUITE_P(Faults, LogFault, ::testing::ValuesIn(kLogs), [](const auto& row) { return row.param.name; });

} // namespace
