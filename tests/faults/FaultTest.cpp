#include "tests/faults/FaultTest.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

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
    RecordProperty("fault", mCell.fault);
    RecordProperty("shows", mCell.shows);
    RecordProperty("bound_ms", std::to_string(mCell.bound.count()));
    RecordProperty("measured_ms", std::to_string(mMeasured->count()));
    std::printf("[ measured ] %s: %lld ms of %lld ms\n", mCell.fault.c_str(),
                static_cast<long long>(mMeasured->count()), static_cast<long long>(mCell.bound.count()));
    if (const char* table = std::getenv("VORLAN_FAULT_TABLE"); table != nullptr && !HasFailure())
        std::ofstream(table, std::ios::app) << "| " << mCell.fault << " | " << mCell.shows << " | "
                                            << mCell.bound.count() << " | " << mMeasured->count() << " |\n";
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
