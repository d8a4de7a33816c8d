#include "tests/process/RigTest.h"

#include <random>

namespace {

using namespace rig;
using sim::exited;
using sim::match::call;

/// A rate at which the daemon's pause for the rest of a frame is short.
constexpr char kFast[] = "4000000";

class BadInput : public RigTest
{
protected:
    void serve(const char* rate = "115200")
    {
        sim::Daemon::tOptions options;
        options.arguments = {"-s", mRig.device().line().path(), "-b", rate};
        ASSERT_TRUE(mRig.serve(options));
    }

    /// The frame of the next request in step, as it goes over the line.
    qv::Bytes wireOf(const qv::Bytes& message) const
    {
        return qv::toWire(qv::buildFrame(const_cast<Rig&>(mRig).peer().number(), message));
    }

    /// What the daemon last sent, for it is to send it again.
    qv::Bytes lastReply(const qv::Bytes& message) { return qv::toWire(qv::buildFrame(mRig.peer().number(), message)); }

    void expectServedAgain()
    {
        EXPECT_TRUE(mRig.serves());
        EXPECT_TRUE(mRig.daemon().running());
    }

    std::string err() { return mRig.daemon().err(); }
};

class RandomBytes : public BadInput, public ::testing::WithParamInterface<unsigned>
{};

TEST_P(RandomBytes, leaveTheLinkUsable)
{
    ASSERT_NO_FATAL_FAILURE(serve(kFast));
    std::mt19937_64 random(GetParam());
    for (int i = 0; i < 200; ++i) {
        qv::Bytes bytes(1 + random() % 1000);
        for (std::uint8_t& byte : bytes)
            byte = static_cast<std::uint8_t>(random());
        ASSERT_TRUE(mRig.pour(bytes));
    }
    expectServedAgain();
    EXPECT_EQ(linesWithout(linesWithout(err(), "SDBusManager: "), "SDataLink::tryRead: crc check failed"), "");
}

INSTANTIATE_TEST_SUITE_P(BadInput, RandomBytes, ::testing::Values(1U, 2U, 3U, 4U),
                         [](const auto& row) { return "Seed" + std::to_string(row.param); });

/// Each beginning of a frame, ended by a delimiter: a reset frame when it is too short to be one, else the stored
/// reply.
TEST_F(BadInput, truncatedFramesAreAnsweredAsBrokenOnes)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    const qv::Bytes message = rig::call(wire::eMethodSetCfgStr, text("VisuMode"));
    const std::size_t length = wireOf(message).size();
    for (std::size_t cut = 0; cut < length - 1; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_TRUE(mRig.inStep());
        ASSERT_EQ(mRig.ask(readReg(wire::eRegRdStartCode)), "00 00");
        const qv::Bytes stored = lastReply({0x00, 0x00});
        const qv::Bytes reset =
            qv::toWire(qv::buildFrame(qv::kResetFlag | qv::nextNumber(mRig.peer().number()), qv::Bytes{0x00}));
        qv::Bytes bytes = wireOf(message);
        bytes.resize(cut);
        bytes.push_back(qv::kDelimiter);
        const bool tooShort = cut <= 5; // which decodes to four bytes
        const std::size_t errors = countOf(err(), "SDataLink::tryRead: crc check failed\n");
        mRig.port().write(bytes);
        EXPECT_EQ(hex(mRig.receive(1)), hex(tooShort ? reset : stored));
        if (tooShort) {
            mRig.peer().forgetStep();
        } else {
            EXPECT_TRUE(mRig.daemon().waitForOutput("SDataLink::tryRead: crc check failed\n", kDeadline, errors + 1));
        }
    }
    EXPECT_EQ(mRig.timeline().count(call("SetCfgString")), 0U);
    expectServedAgain();
}

TEST_F(BadInput, halfAFrameAndThenSilenceSpoilsOnlyTheNextFrame)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_EQ(mRig.ask(readReg(wire::eRegRdStartCode)), "00 00");
    const qv::Bytes stored = lastReply({0x00, 0x00});
    const qv::Bytes wire = wireOf(readReg(wire::eRegRdParamText));
    mRig.port().write(qv::ByteView(wire).first(3));
    ASSERT_TRUE(mRig.readTimesOut());
    mRig.port().write(wire);
    EXPECT_EQ(hex(mRig.receive(1)), hex(stored));
    EXPECT_TRUE(mRig.daemon().waitForOutput("SDataLink::tryRead: crc check failed\n"));
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdParamText)), "00 31 2e 34 2e 32 00");
    EXPECT_EQ(mRig.timeline().count(call("GetParamString")), 1U);
}

TEST_F(BadInput, aFrameMayComeInPiecesWithTimeOutsBetween)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::uint8_t number = mRig.peer().number();
    const qv::Bytes wire = wireOf(readReg(wire::eRegRdParamText));
    mRig.port().write(qv::ByteView(wire).first(1));
    ASSERT_TRUE(mRig.readTimesOut());
    mRig.port().write(qv::ByteView(wire).subspan(1, 4));
    ASSERT_TRUE(mRig.readTimesOut());
    mRig.port().write(qv::ByteView(wire).subspan(5));
    EXPECT_EQ(hex(mRig.receive(1)),
              hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{0, '1', '.', '4', '.', '2', 0}))));
}

/// The second is lost, and the first has a byte more than it was sent with.
TEST_F(BadInput, ofTwoFramesInOneChunkTheFirstIsServed)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::uint8_t number = mRig.peer().number();
    qv::Bytes both = wireOf(readReg(wire::eRegRdStartCode));
    const qv::Bytes second = qv::toWire(qv::buildFrame(qv::nextNumber(number), readReg(wire::eRegRdParamText)));
    both.insert(both.end(), second.begin(), second.end());
    mRig.port().write(both);
    EXPECT_EQ(hex(mRig.receive(1)), hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{0, 0}))));
    mRig.port().write(second);
    EXPECT_EQ(hex(mRig.receive(1)),
              hex(qv::toWire(qv::buildFrame((number + 2U) & 0xFU, qv::Bytes{0, '1', '.', '4', '.', '2', 0}))));
    EXPECT_EQ(mRig.timeline().count(call("GetParamString")), 1U);
}

TEST_F(BadInput, twoFramesInOneChunkRefuseARequestOfFixedLength)
{
    ASSERT_NO_FATAL_FAILURE(serve());
    const std::uint8_t number = mRig.peer().number();
    const qv::Bytes one = wireOf(rig::call(wire::eMethodBeep));
    qv::Bytes both = one;
    both.insert(both.end(), one.begin(), one.end());
    mRig.port().write(both);
    EXPECT_EQ(hex(mRig.receive(1)), hex(qv::toWire(qv::buildFrame(qv::nextNumber(number), qv::Bytes{0x82}))));
    expectServedAgain();
    EXPECT_EQ(mRig.timeline().count(call("Beep")), 0U);
}

TEST_F(BadInput, aFrameOfSeventyThousandBytesIsServed)
{
    ASSERT_NO_FATAL_FAILURE(serve(kFast));
    EXPECT_EQ(mRig.ask(writeReg(wire::eRegWrQVText1, text(std::string(70'000, 't')))), "01");
    expectServedAgain();
}

TEST_F(BadInput, aFrameOfMoreThanAMegabyteIsABrokenOne)
{
    ASSERT_NO_FATAL_FAILURE(serve(kFast));
    ASSERT_EQ(mRig.ask(readReg(wire::eRegRdStartCode)), "00 00");
    const qv::Bytes stored = lastReply({0x00, 0x00});
    ASSERT_TRUE(mRig.pour(wireOf(writeReg(wire::eRegWrQVIpAddr, text(std::string(1'200'000, '1'))))));
    EXPECT_EQ(hex(mRig.receive(1, 6 * kDeadline)), hex(stored));
    EXPECT_TRUE(mRig.daemon().waitForOutput("SDataLink::tryRead: crc check failed\n"));
    EXPECT_EQ(mRig.timeline().count(call("SetParamString")), 0U);
    EXPECT_EQ(mRig.ask(readReg(wire::eRegRdParamText)), "00 31 2e 34 2e 32 00");
}

TEST_F(BadInput, aFloodWithoutADelimiterEndsWithTheNextOne)
{
    ASSERT_NO_FATAL_FAILURE(serve(kFast));
    ASSERT_TRUE(mRig.pour(qv::Bytes(2 << 20, 0x55)));
    ASSERT_TRUE(mRig.daemon().running());
    mRig.port().write(qv::Bytes{qv::kDelimiter});
    ASSERT_EQ(mRig.receive(1, 6 * kDeadline).size(), 7U); // the stored reply to the first request
    expectServedAgain();
    EXPECT_EQ(countOf(err(), "SDataLink::tryRead: crc check failed\n"), 1U);
}

TEST_F(BadInput, aFloodOfDelimitersIsAFloodOfEmptyFrames)
{
    ASSERT_NO_FATAL_FAILURE(serve(kFast));
    ASSERT_TRUE(mRig.pour(qv::Bytes(100'000, qv::kDelimiter)));
    expectServedAgain();
    EXPECT_EQ(linesWithout(err(), "SDBusManager: "), "");
}

/// It is neither a loop nor the end: the daemon tries to open the line once a second.
TEST_F(BadInput, aHungUpLineCostsAFewWakeUpsASecond)
{
    constexpr milliseconds kWindow{3000};
#ifdef __SANITIZE_THREAD__
    constexpr std::uint64_t kOfTheSanitizer = 40; // a thread of its own looks around ten times a second
#else
    constexpr std::uint64_t kOfTheSanitizer = 0;
#endif
    ASSERT_NO_FATAL_FAILURE(serve());
    ASSERT_TRUE(mRig.device().desktop().waitForService());
    mRig.hangUp();
    ASSERT_TRUE(mRig.readTimesOut());
    const std::uint64_t wakeUps = mRig.wakeUps();
    const std::uint64_t ticks = mRig.processorTime();
    EXPECT_EQ(mRig.daemon().waitExit(kWindow), std::nullopt);
    const std::uint64_t wokenUp = mRig.wakeUps() - wakeUps;
    RecordProperty("wake_ups_in_3_s", std::to_string(wokenUp));
    EXPECT_GE(wokenUp, 2U);
    EXPECT_LE(wokenUp, 30U + kOfTheSanitizer);
    EXPECT_LE(mRig.processorTime() - ticks, 30U); // a tenth of the time
    EXPECT_EQ(mRig.device().desktop().property("StatusQV").value, "0");
    mRig.device().line().reopen();
    mRig.connect();
    expectServedAgain();
}

} // namespace
