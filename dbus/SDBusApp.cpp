#include "dbus/SDBusApp.h"

#include "dbus/Handles.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

namespace {
constexpr char kDestination[] = "com.kelvora.IdleApp"; // and interface
constexpr char kPath[] = "/com/kelvora/IdleApp";
} // namespace

SDBusApp::~SDBusApp()
{
    stop();
    std::unique_lock lock(mStateMutex);
    mStateChanged.wait(lock, [this] { return mDelayedExits == 0; });
}

void SDBusApp::stop()
{
    const std::lock_guard lock(mStateMutex);
    mStopped = true;
    mStateChanged.notify_all();
}

void SDBusApp::appDBusCall(const std::string& method, const std::string& arg)
{
    const std::lock_guard lock(mCallMutex);
    {
        const std::lock_guard state(mStateMutex);
        if (mStopped)
            return;
    }
    BusPtr bus;
    if (adopt(bus, [](sd_bus** b) { return sd_bus_open_user(b); }) < 0) {
        std::fputs("Vorlan: Failed to open dbus\n", stderr);
        return;
    }
    BusError error;
    if (arg.empty())
        sd_bus_call_method(bus.get(), kDestination, kPath, kDestination, method.c_str(), error.get(), nullptr, nullptr);
    else
        sd_bus_call_method(bus.get(), kDestination, kPath, kDestination, method.c_str(), error.get(), nullptr, "s",
                           arg.c_str());
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

void SDBusApp::delayedExit(long long seconds)
{
    {
        const std::lock_guard lock(mStateMutex);
        if (mStopped || mDelayedExits == kMaxDelayedExits)
            return;
        ++mDelayedExits;
    }
    try {
        std::thread(&SDBusApp::delayedExitExec, this, seconds).detach();
    } catch (const std::exception&) { // no thread to be had
        delayedExitExec(seconds);
    }
}

void SDBusApp::delayedExitExec(long long seconds)
{
    std::unique_lock lock(mStateMutex);
    if (seconds >= 1)
        mStateChanged.wait_for(lock, std::chrono::seconds(seconds), [this] { return mStopped; });
    lock.unlock();
    appExit();
    lock.lock();
    --mDelayedExits;
    mStateChanged.notify_all();
}
