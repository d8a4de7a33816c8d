#include "sim/Device.h"

#include <cstdlib>

namespace sim {

namespace {

/// The stand-ins connect in their constructors.
PrivateBus& started(PrivateBus& bus)
{
    bus.start();
    return bus;
}

} // namespace

Device::Device()
    : mSystemBus(mFolder.path(), "system-bus")
    , mUserBus(mFolder.path(), "user-bus")
    , mSysd(mLoop, mTimeline, started(mSystemBus))
    , mIdle(mLoop, mTimeline, started(mUserBus))
    , mLogo(mLoop, mTimeline, mUserBus)
    , mSystemd(mLoop, mTimeline, mUserBus)
    , mDesktop(mLoop, mTimeline, mUserBus)
    , mLine(mFolder.path() + "/line")
    , mDaemon(mTimeline, mSystemBus, mUserBus)
{
    mSysd.setCfg("VorlanDev", mLine.path());
}

Device::~Device()
{
    for (const auto& [name, value] : mEnvironment) {
        if (value)
            setenv(name.c_str(), value->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
}

void Device::start(const std::string& executable, const std::vector<std::string>& arguments)
{
    mDaemon.start(executable, arguments);
}

void Device::useInThisProcess()
{
    if (!mEnvironment.empty())
        return;
    for (const char* name : {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"}) {
        const char* value = getenv(name);
        mEnvironment.emplace_back(name, value == nullptr ? std::nullopt : std::optional<std::string>(value));
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", mSystemBus.address().c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", mUserBus.address().c_str(), 1);
    unsetenv("XDG_RUNTIME_DIR");
}

std::vector<Service*> Device::services()
{
    return {&mSysd, &mIdle, &mLogo, &mSystemd};
}

Service* Device::service(const std::string& shortName)
{
    for (Service* service : services())
        if (service->shortName() == shortName)
            return service;
    return nullptr;
}

void Device::hangUpLine()
{
    mLoop.call([this] {
        if (mLineWatcher)
            mLineWatcher(false);
        mLine.hangUp();
    });
}

void Device::reopenLine()
{
    mLoop.call([this] {
        mLine.reopen();
        if (mLineWatcher)
            mLineWatcher(true);
    });
}

void Device::watchLine(std::function<void(bool up)> watcher)
{
    mLoop.call([&] { mLineWatcher = std::move(watcher); });
}

void Device::stopSystemBus()
{
    mSystemBus.stop();
    mSysd.busIsLost();
}

void Device::startSystemBus()
{
    mSystemBus.start();
    mSysd.busIsBack();
}

void Device::stopUserBus()
{
    mUserBus.stop();
    mIdle.busIsLost();
    mLogo.busIsLost();
    mSystemd.busIsLost();
}

void Device::startUserBus()
{
    mUserBus.start();
    mIdle.busIsBack();
    mLogo.busIsBack();
    mSystemd.busIsBack();
    mDesktop.listen();
}

void Device::runBusesAs(BusKindE kind)
{
    stopSystemBus();
    stopUserBus();
    mSystemBus.setKind(kind);
    mUserBus.setKind(kind == BusKindE::eBroker ? kind : BusKindE::eOpen);
    startSystemBus();
    startUserBus();
}

} // namespace sim
