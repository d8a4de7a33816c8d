#include "dbus/SDBusManager.h"

#include "core/VorlanCfg.h"
#include "dbus/SDBusClients.h"
#include "dbus/SDBusManagerTable.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <system_error>

namespace {

constexpr char kName[] = "com.kelvora.vorlan"; // and interface
constexpr char kPath[] = "/com/kelvora/vorlan";
constexpr std::uint64_t kTurnUs = 1'000'000;

void report(const char* words, int result)
{
    std::fprintf(stderr, "SDBusManager: %s%s\n", words, std::generic_category().message(-result).c_str());
}

int drain(sd_event_source*, int fd, std::uint32_t, void*) noexcept
{
    eventfd_t count = 0;
    eventfd_read(fd, &count);
    return 0;
}

} // namespace

SDBusManager::SDBusManager()
    : mWakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{}

void SDBusManager::stop()
{
    requestStop();
    wake();
    ThreadBase::stop();
}

void SDBusManager::wake()
{
    eventfd_write(mWakeFd.get(), 1);
}

bool SDBusManager::initDBusConn()
{
    EventPtr event;
    int result = adopt(event, [](sd_event** e) { return sd_event_default(e); });
    if (result < 0) {
        report("Failed to create sd event: ", result);
        return false;
    }
    sd_event_set_watchdog(event.get(), 1);
    BusPtr bus;
    result = adopt(bus, [](sd_bus** b) { return sd_bus_open_user(b); });
    if (result < 0) {
        report("Failed to open dbus system session: ", result); // the user bus, whatever the line says
        return false;
    }
    result = sd_bus_add_object_vtable(bus.get(), nullptr, kPath, kName, kVorlanTable, this);
    if (result < 0) {
        report("Failed to register object: ", result);
        return false;
    }
    result = sd_bus_request_name(bus.get(), kName, 0);
    if (result < 0) {
        report("Failed to register name dbus name: ", result);
        return false;
    }
    result = sd_bus_attach_event(bus.get(), event.get(), SD_EVENT_PRIORITY_NORMAL);
    if (result < 0) {
        report("Failed to attach bus to event loop: ", result);
        return false;
    }
    sd_event_add_io(event.get(), nullptr, mWakeFd.get(), EPOLLIN, drain, nullptr);
    const std::lock_guard lock(mMutex);
    mEvent = std::move(event);
    mBus = std::move(bus);
    return true;
}

void SDBusManager::Run()
{
    while (!isStopRequested()) {
        connect();
        serve();
        if (!isStopRequested())
            disconnect();
    }
    std::fputs("SDBusManager: Stopping...\n", stderr);
    if (mEvent)
        sd_event_exit(mEvent.get(), 0);
    disconnect();
    setStopped();
}

void SDBusManager::connect()
{
    bool connected = false;
    while (!connected && !isStopRequested()) {
        connected = initDBusConn();
        // After every attempt, the one that succeeded too
        std::fputs("SDBusManager: Failed init DBus...retrying..\n", stderr);
        pauseOneSecond();
    }
}

void SDBusManager::disconnect()
{
    const std::lock_guard lock(mMutex);
    mBus.reset();
    mEvent.reset();
}

/// Only a stop cuts it short.
void SDBusManager::pauseOneSecond()
{
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::seconds(1);
    while (!isStopRequested()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        if (left <= 0)
            return;
        pollfd woken{mWakeFd.get(), POLLIN, 0};
        if (poll(&woken, 1, static_cast<int>(left)) > 0)
            drain(nullptr, mWakeFd.get(), 0, nullptr);
    }
}

void SDBusManager::serve()
{
    while (!isStopRequested() && runOnce()) {
    }
}

/// One turn of the loop. The connection is free for the emitters while the loop waits.
/// False when the loop or the connection has come to its end.
bool SDBusManager::runOnce()
{
    std::unique_lock lock(mMutex);
    sd_event* event = mEvent.get();
    if (sd_event_get_state(event) == SD_EVENT_FINISHED)
        return false;
    int result = sd_event_prepare(event);
    if (result == 0) {
        lock.unlock();
        result = sd_event_wait(event, kTurnUs);
        lock.lock();
    }
    if (result > 0 && !isStopRequested())
        result = sd_event_dispatch(event);
    return result >= 0 && sd_bus_is_open(mBus.get()) > 0;
}

void SDBusManager::emitPropChange(const std::string& name)
{
    const std::lock_guard lock(mMutex);
    if (!mBus)
        return;
    sd_bus_emit_properties_changed(mBus.get(), kPath, kName, name.c_str(), nullptr);
    wake();
}

void SDBusManager::emitSignal(const char* member)
{
    const std::lock_guard lock(mMutex);
    if (!mBus || isStopRequested()) // what seems to have changed may be the default of a stopped client
        return;
    sd_bus_emit_signal(mBus.get(), kPath, kName, member, nullptr);
    wake();
}

void SDBusManager::emitQVIpAddr()
{
    emitPropChange("IpAddrQV");
}

void SDBusManager::emitQVStatus()
{
    emitPropChange("StatusQV");
}

void SDBusManager::emitAnimationCfg()
{
    emitPropChange("AnimationEnabled");
}

void SDBusManager::emitStatusTxt()
{
    emitPropChange("StatusText");
}

void SDBusManager::emitShowQVStatus()
{
    emitPropChange("ShowQVStatus");
}

void SDBusManager::emitShowLogos()
{
    emitPropChange("ShowLogos");
}

void SDBusManager::emitOrientationChanged()
{
    emitSignal("OrientationChanged");
}

void SDBusManager::sendLogosFinished()
{
    emitSignal("LogosFinished");
}

bool SDBusManager::getShowLogos()
{
    return SDBusClients::clients()->mSysD->getParamBool(eParamShowLogos);
}

int SDBusManager::getGiffOffsetX()
{
    return SDBusClients::clients()->mSysD->getParamInt(eParamGifOffsetX);
}

int SDBusManager::getGiffOffsetY()
{
    return SDBusClients::clients()->mSysD->getParamInt(eParamGifOffsetY);
}

int SDBusManager::getGiffDelayMS()
{
    return SDBusClients::clients()->mSysD->getParamInt(eParamGifDelayMS);
}

bool SDBusManager::getShowQVStatus()
{
    return SDBusClients::clients()->mSysD->getParamBool(eParamShowQVStatus);
}

void SDBusManager::showQMX()
{
    SDBusClients::clients()->mSysD->setCfgInt("Startmode", 2);
    const std::string address = "http://" + VorlanCfg::cfg()->IpAddrQV.get() + "/qmx/index.html";
    SDBusClients::clients()->mSysD->setCfgString("SelectedFavoriteWeb", address);
    SDBusClients::clients()->mSysD->loadConfig();
    SDBusClients::clients()->mApp->delayedExit(2);
}
