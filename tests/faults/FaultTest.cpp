#include "tests/faults/FaultTest.h"

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

} // namespace rig
