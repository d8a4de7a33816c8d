#include "protocol/Wire.h"
#include "qv/Frame.h"
#include "qv/Port.h"
#include "tests/qv/Command.h"
#include "tests/qv/Hex.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr auto kLongWait = "100000"; ///< ms; a program that waits for so long is killed before

/// vorlan-qv on a pty, and at its other end somebody who is silent until answer() was called.
class CommandOnLineTest : public testing::Test
{
protected:
    CommandOnLineTest()
        : mMaster(qv::Port::adopt(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)))
    {
        grantpt(mMaster.fd());
        unlockpt(mMaster.fd());
        mDevice = ptsname(mMaster.fd());
    }
    ~CommandOnLineTest() override
    {
        hush();
        std::filesystem::remove(mFile);
    }

    /// Answers each request with a status byte, and a zero to a read, until hush().
    void answer()
    {
        mThread = std::thread([this] {
            qv::FrameCutter cutter;
            while (!mHush) {
                const auto bytes = mMaster.read(qv::Clock::now() + 20ms);
                mReceived.insert(mReceived.end(), bytes.begin(), bytes.end());
                cutter.feed(bytes);
                while (const auto wire = cutter.next()) {
                    reply(qv::parseWire(*wire));
                }
            }
        });
    }
    void hush()
    {
        mHush = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    /// What came is the two frames that get in step and the read, and not a byte more.
    void expectOnlyFrames()
    {
        hush();
        EXPECT_EQ(mBroken, 0U);
        EXPECT_EQ(mRequests, std::vector<qv::Bytes>(3, hex("00 00")));
        EXPECT_EQ(mReceived.size(), 3 * hex("02 10 01 03 8F FF 00").size());
    }
    void reply(const qv::tParsedFrame& frame)
    {
        if (!frame.ok()) {
            ++mBroken;
            return;
        }
        mRequests.push_back(frame.payload);
        ++mCount;
        qv::Bytes payload{static_cast<std::uint8_t>(frame.payload[0] & wire::kCommandMask)};
        if (mRefuses && !frame.hasResetFlag()) {
            payload[0] |= wire::kErrorBit;
        } else if (payload[0] == wire::eCmdReadReg) {
            payload.push_back(0);
        }
        mMaster.write(qv::toWire(qv::buildFrame(qv::nextNumber(frame.number()), payload)));
    }

    /// The words after the options that name the line.
    std::vector<std::string> command(std::initializer_list<std::string> words) const
    {
        std::vector<std::string> argv{kVorlanQv, "--port", mDevice, "--timeout", kLongWait};
        argv.insert(argv.end(), words);
        return argv;
    }
    /// The same, run with a redirection of the shell.
    std::vector<std::string> redirected(const std::string& redirection, std::initializer_list<std::string> words) const
    {
        auto argv = command(words);
        argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirection});
        return argv;
    }
    bool requestsCame(unsigned count) const
    {
        const auto deadline = qv::Clock::now() + 30s;
        while (mCount < count && qv::Clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        return mCount >= count;
    }
    bool somethingWasSent() { return !mMaster.read(qv::Clock::now() + 30s).empty(); }
    std::string file(const std::string& text)
    {
        std::ofstream(mFile) << text;
        return mFile;
    }

    qv::Port mMaster;
    std::string mDevice;
    std::string mFile = testing::TempDir() + "/boot." + std::to_string(getpid());
    std::thread mThread;
    std::atomic<bool> mHush{false};
    std::atomic<bool> mRefuses{false}; ///< everything but the frames that get in step
    std::atomic<unsigned> mCount{0};   ///< requests that came
    // What the other end got: to be looked at after hush().
    qv::Bytes mReceived;
    std::vector<qv::Bytes> mRequests;
    unsigned mBroken = 0;
};

constexpr auto kNotWritten = "vorlan-qv: the results could not be written\n";
const auto kBeep = hex("02 09");

TEST_F(CommandOnLineTest, CtrlCEndsARequestThatWaits)
{
    Program program(command({"read", "0", "0"}));
    ASSERT_TRUE(somethingWasSent());
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, "read const-0: interrupted.\n");
}

TEST_F(CommandOnLineTest, CtrlCEndsAStartUpInTheMiddleOfARequest)
{
    Program program(command({"boot", file("# first\ncall beep\ncall beep\n")}));
    ASSERT_TRUE(somethingWasSent());
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, "call beep: interrupted.\n" + mFile + ":2: interrupted\n");
}

TEST_F(CommandOnLineTest, CtrlCInAWatchEndsTheStartUpToo)
{
    answer();
    Program program(command({"boot", file("watch const-0 --every 5\ncall beep\n")}));
    ASSERT_TRUE(program.writes("const-0  0"));
    program.signal(SIGINT);
    const auto run = program.end();
    hush();
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, mFile + ":1: interrupted\n");
    EXPECT_THAT(mRequests, Not(Contains(kBeep)));
}

TEST_F(CommandOnLineTest, CtrlCEndsADelayOnPurpose)
{
    answer();
    Program program(command({"--trace", "--delay", "60000", "--seed", "9", "read", "0"})); // almost all of the minute
    ASSERT_TRUE(program.writes("get in step"));
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 3);
    EXPECT_THAT(run.err, HasSubstr("interrupted"));
    hush();
    EXPECT_THAT(mReceived, IsEmpty()) << "what was still to come is not sent";
}

TEST_F(CommandOnLineTest, AWatchThatIsRefusedSaysSo)
{
    mRefuses = true;
    answer();
    const auto run = runProgram(command({"watch", "const-0", "--every", "0", "--count", "2"}));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, StartsWith("read const-0: refused by the device (error bit set)"));
}

TEST_F(CommandOnLineTest, CtrlCEndsAScript)
{
    answer();
    Program program(command({"shell"}), "watch const-0 --every 5\ncall beep\n");
    ASSERT_TRUE(program.writes("const-0  0"));
    program.signal(SIGINT);
    EXPECT_EQ(program.end().status, 3);
    hush();
    EXPECT_THAT(mRequests, Not(Contains(kBeep)));
}

TEST_F(CommandOnLineTest, CtrlCEndsAWatchAsUsual)
{
    answer();
    Program program(command({"watch", "const-0", "--every", "5"}));
    ASSERT_TRUE(program.writes("const-0  0"));
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
}

TEST_F(CommandOnLineTest, APingThatWasNeverAnsweredIsNoSuccess)
{
    Program program(command({"ping"}));
    ASSERT_TRUE(somethingWasSent());
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "read const-0: interrupted.\n");
}

TEST_F(CommandOnLineTest, CtrlCEndsAPingWithItsReport)
{
    answer();
    Program program(command({"ping", "--count", "100000000"}));
    ASSERT_TRUE(requestsCame(5)) << "two to get in step, and three of the ping: two were answered";
    program.signal(SIGINT);
    const auto run = program.end();
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.out, HasSubstr(" answered, 0 repeats\nminimum "));
}

TEST_F(CommandOnLineTest, APortIsNotShared)
{
    answer();
    const auto owner = qv::Port::open(mDevice, 115200);
    const auto run = runProgram(command({"read", "0"}));
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, StartsWith("vorlan-qv: another program uses " + mDevice));
    hush();
    EXPECT_THAT(mReceived, IsEmpty());
}

TEST_F(CommandOnLineTest, WithoutStandardOutputNothingButFramesGoesOverTheLine)
{
    answer();
    const auto run = runProgram(redirected(">&-", {"read", "0"}));
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, kNotWritten);
    expectOnlyFrames();
}

TEST_F(CommandOnLineTest, WithoutStandardErrorNothingButFramesGoesOverTheLine)
{
    answer();
    const auto run = runProgram(redirected("2>&-", {"--trace", "read", "0"}));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "const-0  0\n");
    expectOnlyFrames();
}

TEST_F(CommandOnLineTest, WithoutStandardInputThePromptDoesNotReadFromTheLine)
{
    const auto run = runProgram(redirected("<&-", {"shell"}));
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
}

TEST_F(CommandOnLineTest, ResultsThatCannotBeWrittenAreNoSuccess)
{
    answer();
    for (const auto& words : {redirected(">/dev/full", {"read", "0"}), redirected(">/dev/full", {"list"}),
                              redirected(">/dev/full", {"--help"})}) {
        const auto run = runProgram(words);
        EXPECT_EQ(run.status, 3);
        EXPECT_EQ(run.err, kNotWritten);
    }
}

} // namespace
