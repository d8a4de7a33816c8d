#include "dbus/ThreadBase.h"

#include "tests/support/NoMoreThreads.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace {

/// Its thread runs until it is asked to stop, or told to end by itself.
class Worker : public ThreadBase
{
public:
    ~Worker() override { stop(); }

    void Run() override
    {
        ++mRuns;
        mThread = pthread_self();
        mStarted.set_value();
        while (!isStopRequested() && !mEnd)
            std::this_thread::yield();
        if (mEnd)
            setStopped();
        mEnded.set_value();
    }

    void waitStarted()
    {
        EXPECT_EQ(mStarted.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    void waitEnded() { EXPECT_EQ(mEnded.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready); }
    void again()
    {
        mStarted = {};
        mEnded = {};
        mEnd = false;
    }

    std::atomic<int> mRuns = 0;
    std::atomic<bool> mEnd = false;
    std::atomic<pthread_t> mThread{};

private:
    std::promise<void> mStarted;
    std::promise<void> mEnded;
};

} // namespace

TEST(ThreadBase, isIdleAtFirst)
{
    Worker worker;
    EXPECT_FALSE(worker.isRunning());
    EXPECT_FALSE(worker.isStopRequested());
    EXPECT_EQ(worker.mRuns, 0);
}

TEST(ThreadBase, startRunsTheBodyOnAThreadOfItsOwn)
{
    Worker worker;
    worker.start();
    worker.waitStarted();
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(pthread_equal(worker.mThread, pthread_self()));
    worker.stop();
}

TEST(ThreadBase, startWhileItRunsDoesNothing)
{
    Worker worker;
    worker.start();
    worker.waitStarted();
    worker.start();
    worker.stop();
    EXPECT_EQ(worker.mRuns, 1);
}

TEST(ThreadBase, stopAsksTheBodyToEndAndWaitsForIt)
{
    Worker worker;
    worker.start();
    worker.waitStarted();
    worker.stop();
    EXPECT_TRUE(worker.isStopRequested());
    EXPECT_FALSE(worker.isRunning());
    worker.waitEnded();
}

TEST(ThreadBase, stopWithoutAThreadReturnsAtOnce)
{
    Worker worker;
    worker.stop();
    worker.stop();
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(worker.mRuns, 0);
}

TEST(ThreadBase, startAfterStopRunsAgain)
{
    Worker worker;
    for (int run = 1; run <= 3; ++run) {
        worker.again();
        worker.start();
        worker.waitStarted();
        EXPECT_FALSE(worker.isStopRequested()) << "the last stop is forgotten";
        EXPECT_EQ(worker.mRuns, run);
        worker.stop();
    }
}

TEST(ThreadBase, requestStopDoesNotWait)
{
    Worker worker;
    worker.start();
    worker.waitStarted();
    worker.requestStop();
    EXPECT_TRUE(worker.isStopRequested());
    EXPECT_TRUE(worker.isRunning()) << "the body did not say that it has stopped";
    worker.stop();
    EXPECT_FALSE(worker.isRunning());
}

TEST(ThreadBase, aBodyThatEndedByItselfCanBeStartedAgainAndLeavesNothingBehind)
{
    Worker worker;
    for (int run = 1; run <= 3; ++run) {
        worker.again();
        worker.start();
        worker.waitStarted();
        worker.mEnd = true;
        worker.waitEnded();
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(worker.mRuns, run);
    }
    worker.stop();
}

TEST(ThreadBase, detachWithoutAThreadIsNoFailure)
{
    Worker worker;
    EXPECT_FALSE(worker.detach());
}

TEST(ThreadBase, aDetachedThreadIsNotWaitedFor)
{
    Worker worker;
    worker.start();
    worker.waitStarted();
    EXPECT_FALSE(worker.detach());
    worker.stop(); // would wait for ever, or for a thread that is nobody's
    EXPECT_FALSE(worker.isStopRequested());
    worker.mEnd = true;
    worker.waitEnded();
}

TEST(ThreadBase, startsNothingWhenNoThreadCanBeHadAndOnceThereIsOneItDoes)
{
    Worker worker;
    {
        const NoMoreThreads guard;
        worker.start();
    }
    EXPECT_FALSE(worker.isRunning());
    worker.stop();
    EXPECT_EQ(worker.mRuns, 0);
    worker.start();
    worker.waitStarted();
    worker.stop();
    EXPECT_EQ(worker.mRuns, 1);
}
