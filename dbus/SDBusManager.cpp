#include "dbus/SDBusManager.h"

#include "core/VorlanCfg.h"
#include "dbus/SDBusClients.h"
#include "dbus/SDBusManagerTable.h"
#include "os/Log.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <string_view>
#include <system_error>

namespace {

constexpr char kName[] = "com.kelvora.vorlan"; // and interface
constexpr char kPath[] = "/com/kelvora/vorlan";
constexpr std::uint64_t kTurnUs = 1'000'000;
constexpr int kLastTurns = 100;             ///< of the loop after a stop
constexpr std::uint64_t kManyUnsent = 1000; ///< messages
constexpr std::chrono::milliseconds kStandstill{500};

/// The object's path and the paths above it, the deepest first.
constexpr const char* kNodes[] = {kPath, "/com/kelvora", "/com", "/"};

/// Where memory ends while the object is added, the library keeps the paths above it, and aborts when it closes the
/// connection. A path is dropped with the last thing on it, or with the first that could not be put there.
void dropNodes(sd_bus* bus)
{
    for (const char* path : kNodes) {
        sd_bus_slot* slot = nullptr;
        sd_bus_add_object_manager(bus, &slot, path);
        sd_bus_slot_unref(slot);
    }
}

void report(std::string_view words, int result)
{
    logErr({"SDBusManager: ", words, std::generic_category().message(-result)});
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
    result = openBus(BusE::eUser, bus);
    if (result < 0) {
        report("Failed to open dbus system session: ", result); // the user bus, whatever the line says
        return false;
    }
    result = sd_bus_add_object_vtable(bus.get(), nullptr, kPath, kName, kVorlanTable, this);
    if (result < 0) {
        dropNodes(bus.get());
        report("Failed to register object: ", result);
        return false;
    }
    result = requestName(bus.get());
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
    mBus = std::move(bus);
    mEvent = std::move(event);
    mGivenUp = false;
    mSending = std::chrono::steady_clock::time_point::max(); // before the loop serves it nothing can leave
    return true;
}

/// Does not queue for a name that somebody else owns.
int SDBusManager::requestName(sd_bus* bus)
{
    enum : std::uint32_t // as the D-Bus specification numbers them
    {
        eDoNotQueue = 4,
        ePrimaryOwner = 1
    };
    const MessagePtr call = newCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "RequestName");
    if (!call || sd_bus_message_append(call.get(), "su", kName, eDoNotQueue) < 0)
        return -ENOMEM;
    MessagePtr answer;
    std::uint32_t owner = 0;
    int result = callBus(
        bus, call.get(), [this] { return isStopRequested(); }, &answer);
    if (result >= 0)
        result = sd_bus_message_read(answer.get(), "u", &owner);
    return result >= 0 && owner != ePrimaryOwner ? -EEXIST : result;
}

void SDBusManager::Run()
{
    while (!isStopRequested()) {
        connect();
        serve();
        if (!isStopRequested())
            disconnect();
    }
    logErr({"SDBusManager: Stopping..."});
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
        logErr({"SDBusManager: Failed init DBus...retrying.."});
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

/// What was asked before a stop is answered, as far as it has come in.
void SDBusManager::serve()
{
    {
        const std::lock_guard lock(mMutex);
        mSending = std::chrono::steady_clock::now();
    }
    bool open = true;
    while (open && !isStopRequested())
        open = runOnce(kTurnUs);
    for (int turns = 0; open && turns < kLastTurns; ++turns)
        open = runOnce(0);
}

/// One turn of the loop. The connection is free for the emitters while the loop waits, and those that wait for it go
/// before the loop. False when the loop or the connection has come to its end, or when there is nothing to do at once.
bool SDBusManager::runOnce(std::uint64_t waitUs)
{
    std::unique_lock lock(mMutex);
    sd_event* event = mEvent.get();
    if (sd_event_get_state(event) == SD_EVENT_FINISHED)
        return false;
    int result = sd_event_prepare(event);
    if (result == 0) {
        lock.unlock();
        result = sd_event_wait(event, waitUs);
        lock.lock();
    }
    const bool idle = result == 0 && waitUs == 0;
    if (result > 0) {
        mDispatcher = std::this_thread::get_id();
        result = sd_event_dispatch(event);
        mDispatcher = std::thread::id();
    }
    return result >= 0 && !idle && !mGivenUp && sd_bus_is_open(mBus.get()) > 0;
}

/// A bus of which nothing of many messages leaves us stands still.
void SDBusManager::watchQueue()
{
    std::uint64_t unsent = 0;
    sd_bus_get_n_queued_write(mBus.get(), &unsent);
    const auto now = std::chrono::steady_clock::now();
    if (unsent <= std::max(mUnsent, kManyUnsent))
        mSending = std::max(mSending, now);
    mGivenUp = now - mSending > kStandstill;
    mUnsent = unsent;
}

bool SDBusManager::isConnected()
{
    const std::lock_guard lock(mMutex);
    return mBus && !mGivenUp;
}

template <typename Emit>
void SDBusManager::emitOn(Emit emit)
{
    const std::lock_guard lock(mMutex);
    if (!mBus || mGivenUp)
        return;
    emit(mBus.get());
    watchQueue();
    wake();
}

void SDBusManager::emitPropChange(const std::string& name)
{
    emitOn([&](sd_bus* bus) { sd_bus_emit_properties_changed(bus, kPath, kName, name.c_str(), nullptr); });
}

void SDBusManager::emitSignal(const char* member)
{
    emitOn([&](sd_bus* bus) { sd_bus_emit_signal(bus, kPath, kName, member, nullptr); });
}

/// Announces a property that is asked for. The bus library would ask while it holds the connection, so that comes
/// first.
void SDBusManager::emitAsked(const char* name, bool (SDBusManager::*ask)())
{
    if (!isConnected())
        return;
    try {
        const bool value = (this->*ask)();
        emitOn([&](sd_bus* bus) {
            sd_bus_emit_signal(bus, kPath, "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as", kName, 1,
                               name, "b", int{value}, 0);
        });
    } catch (const BusStopped&) { // it has no value any more
    }
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
    emitAsked("ShowQVStatus", &SDBusManager::getShowQVStatus);
}

void SDBusManager::emitShowLogos()
{
    emitAsked("ShowLogos", &SDBusManager::getShowLogos);
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
