#include "dbus/SDBusApp.h"

#include "dbus/Bus.h"
#include "os/Log.h"

#include <algorithm>
#include <exception>

using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr char kDestination[] = "com.kelvora.IdleApp"; // and interface
constexpr char kPath[] = "/com/kelvora/IdleApp";
constexpr long long kMaxDelayS = 365 * 24 * 3600; ///< longer ones would overflow the clock

} // namespace

SDBusApp::~SDBusApp()
{
    stop();
    if (mExitThread.joinable())
        mExitThread.join();
}

void SDBusApp::stop()
{
    const std::lock_guard lock(mStateMutex);
    mStopped = true;
    mStateChanged.notify_all();
}

bool SDBusApp::isStopped()
{
    const std::lock_guard lock(mStateMutex);
    return mStopped;
}

void SDBusApp::appDBusCall(const std::string& method, const std::string& arg)
{
    const std::lock_guard lock(mCallMutex);
    if (isStopped())
        return;
    BusPtr bus;
    if (openBus(BusE::eUser, bus) < 0) {
        logErr({"Vorlan: Failed to open dbus"});
        return;
    }
    const MessagePtr call = newCall(bus.get(), kDestination, kPath, method.c_str());
    if (call && (arg.empty() || sd_bus_message_append(call.get(), "s", arg.c_str()) >= 0))
        callBus(bus.get(), call.get(), [this] { return isStopped(); });
}

void SDBusApp::appExit()
{
    appDBusCall("Exit", "");
}

void SDBusApp::appDisableAnimation()
{
    appDBusCall("DisableAnimation", "");
}

void SDBusApp::appSetTextMsg(const std::string& text)
{
    appDBusCall("SetTextMsg", text);
}

void SDBusApp::delayedExit(long long delayS)
{
    if (!queueExit(steady_clock::now() + seconds(std::clamp(delayS, 0LL, kMaxDelayS))))
        delayedExitExec(delayS);
}

/// False when there is no thread, or no memory, to keep it.
bool SDBusApp::queueExit(tTime time)
{
    const std::lock_guard lock(mStateMutex);
    if (mStopped || mExits.size() == kMaxDelayedExits)
        return true;
    try {
        if (!mExitThread.joinable())
            mExitThread = std::thread(&SDBusApp::runExits, this);
        mExits.push(time);
    } catch (const std::exception&) {
        return false;
    }
    mStateChanged.notify_all();
    return true;
}

/// The thread of the delayed exits.
void SDBusApp::runExits()
{
    std::unique_lock lock(mStateMutex);
    while (!mStopped) {
        if (mExits.empty()) {
            mStateChanged.wait(lock);
        } else if (mExits.top() > steady_clock::now()) {
            mStateChanged.wait_until(lock, tTime(mExits.top()));
        } else {
            mExits.pop();
            lock.unlock();
            appExit();
            lock.lock();
        }
    }
}

void SDBusApp::delayedExitExec(long long delayS)
{
    if (delayS >= 1) {
        std::unique_lock lock(mStateMutex);
        mStateChanged.wait_for(lock, seconds(std::min(delayS, kMaxDelayS)), [this] { return mStopped; });
    }
    appExit();
}
