#include "dbus/FairMutex.h"

#include "tests/support/Sleeper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <vector>

using testing::ElementsAre;

namespace {

class FairMutexTest : public testing::Test
{
protected:
    /// A thread that waits for the mutex and then notes its number, so often.
    std::unique_ptr<Sleeper> waiter(int number, int times = 1)
    {
        auto out = std::make_unique<Sleeper>([this, number, times] {
            for (int i = 0; i < times; ++i) {
                const std::lock_guard lock(mMutex);
                mServed.push_back(number);
            }
        });
        EXPECT_TRUE(out->fallsAsleep());
        return out;
    }

    FairMutex mMutex;
    std::vector<int> mServed; ///< guarded by mMutex
};

} // namespace

TEST_F(FairMutexTest, KeepsOthersOutWhileItIsHeld)
{
    mMutex.lock();
    const auto other = waiter(1);
    EXPECT_THAT(mServed, ElementsAre());
    mMutex.unlock();
}

TEST_F(FairMutexTest, GoesToItsWaitersInTheOrderOfTheirComing)
{
    mMutex.lock();
    {
        const auto first = waiter(1);
        const auto second = waiter(2);
        const auto third = waiter(3);
        mMutex.unlock();
    }
    EXPECT_THAT(mServed, ElementsAre(1, 2, 3));
}

TEST_F(FairMutexTest, AThreadThatLocksAgainAndAgainComesBehindWhoeverWaits)
{
    mMutex.lock();
    {
        const auto greedy = waiter(1, 1000);
        const auto patient = waiter(2);
        mMutex.unlock();
    }
    ASSERT_EQ(mServed.size(), 1001U);
    EXPECT_EQ(mServed[0], 1);
    EXPECT_EQ(mServed[1], 2);
}

TEST_F(FairMutexTest, TheOneWhoLetsItGoComesBehindWhoeverWaits)
{
    mMutex.lock();
    {
        const auto patient = waiter(1);
        mMutex.unlock();
        const std::lock_guard again(mMutex);
        mServed.push_back(0);
    }
    EXPECT_THAT(mServed, ElementsAre(1, 0));
}
