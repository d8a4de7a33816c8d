#include "dbus/ThreadBase.h"

void* ThreadBase::entry(void* self)
{
    static_cast<ThreadBase*>(self)->Run();
    return nullptr;
}

void ThreadBase::start()
{
    if (mRunning)
        return;
    ThreadBase::stop(); // a thread that has ended by itself is still to be joined
    mRunning = true;
    mStopRequested = false;
    mJoinable = pthread_create(&mThread, nullptr, entry, this) == 0;
    if (!mJoinable)
        mRunning = false;
}

void ThreadBase::stop()
{
    if (!mJoinable)
        return;
    mStopRequested = true;
    pthread_join(mThread, nullptr);
    mJoinable = false;
    mRunning = false;
}

bool ThreadBase::detach()
{
    if (!mRunning || !mJoinable)
        return false;
    mJoinable = false;
    return pthread_detach(mThread) != 0;
}
