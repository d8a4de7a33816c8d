#include "FailingAllocator.h"
#include "link/SFrame.h"
#include "link/SManager.h"
#include "link/SerialException.h"
#include "tests/process/RigTest.h"
#include "tests/support/ScriptedSerial.h"

#include <sys/resource.h>
#include <sysexits.h>

#include <fstream>
#include <optional>
#include <string>

namespace {

constexpr char kFailure[] = "a text that is too long to lie inside of its string";

using NetworkRecords = rig::RigTest;
using testing::AnyOf;
using testing::HasSubstr;

/// What the process holds in memory, in KiB.
std::size_t residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::size_t kiB = 0;
    for (std::string word; status >> word;)
        if (word == "Rss:")
            status >> kiB;
    return kiB;
}

qv::Bytes networkRecord(const std::string& interface, std::size_t size)
{
    qv::Bytes arguments = rig::text(interface);
    arguments.resize(size, 'A');
    arguments.push_back(0);
    return rig::call(wire::eMethodSetNetworkCfg, arguments);
}

/// The daemon runs short of memory: it serves on, or it ends with its own line and status. A signal never ends it.
class MemoryShort : public rig::RigTest
{
protected:
    /// Whether it ended, and then whether it did so rightly.
    bool hasEnded(rig::milliseconds within)
    {
        const std::optional<sim::tExit> exit = mRig.daemon().waitExit(within);
        if (!exit)
            return false;
        EXPECT_EQ(exit, sim::exited(EX_SOFTWARE));
        EXPECT_THAT(mRig.daemon().err(), HasSubstr("vorlan: ended by "));
        return true;
    }

    void limitData(std::size_t bytes)
    {
        const rlimit limit{bytes, RLIM_INFINITY};
        ASSERT_EQ(prlimit(mRig.daemon().pid(), RLIMIT_DATA, &limit, nullptr), 0);
    }
};

/// Reads a frame that the port's failure cuts short, with the one allocation failing; returns how many there were.
std::uint64_t readCutShort(ScriptedSerial& line, std::uint64_t failAt)
{
    SFrame frame;
    frame.init();
    line.deliver({1, 2, 3});
    line.throwOnRead(SerialException(kFailure));
    std::vector<unsigned char> out;
    allocator::tControl control;
    control.failAt = failAt;
    allocator::arm(control);
    const bool complete = frame.readSFrame(out);
    allocator::disarm();
    EXPECT_FALSE(complete);
    EXPECT_THAT(frame.lastError(), AnyOf(kFailure, "unknown", "")) << "allocation " << failAt;
    EXPECT_EQ(frame.isBroken(), frame.lastError() == "unknown") << "allocation " << failAt; // the port stays open
    return control.count;
}

} // namespace

TEST(FrameWithoutMemory, IsAFailedReadWhicheverAllocationFails)
{
    auto* line = new ScriptedSerial;
    SManager::registerSerialBackend(line);
    line->setOpen(true);
    const std::uint64_t all = readCutShort(*line, 0);
    EXPECT_GE(all, 2U); // the bytes and the text at least
    for (std::uint64_t failAt = 1; failAt <= all; ++failAt)
        readCutShort(*line, failAt);
    SManager::registerSerialBackend(nullptr);
}

TEST_F(NetworkRecords, OfMoreThanFourKiBAreServedAndNotRemembered)
{
    constexpr std::size_t kSize = 6000;
    constexpr std::size_t kCount = 60; // fewer than the interfaces that are remembered
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.tellConditions());
    ASSERT_EQ("02", mRig.ask(rig::call(wire::eMethodApplyConfig)));
    for (std::size_t i = 0; i < 4; ++i)
        ASSERT_EQ("02", mRig.ask(networkRecord("eth0", kSize)));
    const std::size_t before = residentKiB(mRig.daemon().pid());
    const std::size_t mark = mRig.timeline().mark();
    for (std::size_t i = 0; i < kCount; ++i)
        ASSERT_EQ("02", mRig.ask(networkRecord("eth" + std::to_string(1 + i), kSize)));
    EXPECT_EQ(kCount, mRig.timeline().count(sim::match::call("ConfigureNetIf"), mark));
    EXPECT_GT(before, 0U);
    EXPECT_LT(residentKiB(mRig.daemon().pid()), before + kCount * kSize / 1024 / 2);
}

TEST_F(MemoryShort, InARestartEndsNothingByASignal)
{
    constexpr std::size_t kFlood = 512 * 1024; // more than the heap has left; no delimiter in it
    sim::Daemon::tOptions options;
    options.arguments = {"-s", mRig.device().line().path(), "-b", "4000000"};
    ASSERT_TRUE(mRig.serve(options));
    limitData(4096); // 0 would be no limit at all
    if (!mRig.pour(qv::Bytes(kFlood, 'A')) || !mRig.daemon().waitForOutput("Vorlan: Run: failed, restarting...\n")) {
        EXPECT_TRUE(hasEnded(rig::kDeadline));
        return;
    }
    if (!mRig.serves(rig::milliseconds(1500)))
        limitData(RLIM_INFINITY);
    EXPECT_TRUE(mRig.serves() || hasEnded({}));
}

TEST_F(MemoryShort, BeforeTheVisualisationEndsNothingByASignal)
{
    ASSERT_TRUE(mRig.serve());
    ASSERT_TRUE(mRig.tellConditions());
    limitData(4096);
    mRig.peer().sendFrame(mRig.peer().number(), rig::call(wire::eMethodApplyConfig)); // there may be no reply
    EXPECT_TRUE(hasEnded(rig::milliseconds(2000)) || mRig.timeline().waitFor(sim::match::call("LoadConfig")));
}
