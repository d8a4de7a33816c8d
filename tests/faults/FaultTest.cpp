#include "tests/faults/FaultTest.h"

#include "tests/faults/Strangers.h"

#include <algorithm>

namespace rig {

void FaultTest::describe(const tCell& cell)
{
    mCell = cell;
}

void FaultTest::faultIsOver()
{
    mSince = Clock::now();
}

milliseconds FaultTest::left() const
{
    const auto used = std::chrono::duration_cast<milliseconds>(Clock::now() - mSince.value());
    return std::max(mCell.bound - used, milliseconds{0});
}

void FaultTest::recovered()
{
    const auto time = std::chrono::ceil<milliseconds>(Clock::now() - mSince.value());
    EXPECT_LE(time, mCell.bound);
    mMeasured = std::max(time, mMeasured.value_or(time));
}

void FaultTest::TearDown()
{
    RigTest::TearDown();
    ASSERT_TRUE(mMeasured) << "nothing was measured";
    record(mCell.fault, mCell.shows, mCell.bound, *mMeasured);
}

void FaultTest::serve()
{
    sim::Daemon::tOptions options;
    options.environment = kShortCalls;
    ASSERT_TRUE(mRig.serve(options));
}

void FaultTest::serveWithService()
{
    serve();
    ASSERT_TRUE(mRig.device().desktop().waitForService());
}

bool FaultTest::givesRightText()
{
    std::string text = askText();
    while (text != kText && left() > milliseconds{0} && !mRig.daemon().waitExit(milliseconds{5}))
        text = askText();
    EXPECT_EQ(text, kText);
    return text == kText;
}

void FaultTest::rememberMemory()
{
    mMemory = memoryOf(mRig.daemon().pid());
}

void FaultTest::expectMemoryWithin(std::size_t megabytes)
{
    const std::size_t most = memoryOf(mRig.daemon().pid(), "VmHWM");
    ASSERT_GT(mMemory, 0U);
    RecordProperty("memory_kb", std::to_string(most - mMemory));
    if (!kSanitized) {
        EXPECT_LE(most - mMemory, megabytes * 1024);
    }
}

} // namespace rig
