#include "core/Vorlan.h"

#include "dbus/SDBusClients.h"
#include "dbus/SDBusLogoHandler.h"
#include "dbus/SDBusManager.h"
#include "link/SDataLink.h"
#include "link/SManager.h"
#include "os/Log.h"

#include <cerrno>
#include <csignal>
#include <ctime>

std::atomic<bool> sRunning = true;

namespace {

constexpr std::size_t kKeptCapacity = 4096; ///< bytes of a request whose memory is kept

static_assert(std::atomic<bool>::is_always_lock_free, "the signal handlers store into it");

void onStopSignal(int)
{
    sRunning = false;
}

void sleepMs(long ms)
{
    timespec left{0, ms * 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

Vorlan::Vorlan()
{
    for (const int signal : {SIGTERM, SIGKILL, SIGUSR1}) // SIGKILL cannot be caught: that call fails, deliberately so
        std::signal(signal, onStopSignal);
}

Vorlan::~Vorlan()
{
    if (mLogoThread.joinable())
        stopWorkers();
}

void Vorlan::init()
{
    mpDataLink = newDataLink();
    mpService = std::make_unique<SDBusManager>();
    mpNetConfs = std::make_unique<std::map<std::string, NetConf>>();
    mpApp = SDBusClients::clients()->mApp;
    mpSysD = SDBusClients::clients()->mSysD;
    mpSysD->openOnlyWhile(sRunning);
}

std::unique_ptr<SDataLink> Vorlan::newDataLink()
{
    return std::make_unique<SDataLink>([this] { startService(); });
}

void Vorlan::setSerialCfg(const std::string& device, unsigned int baud)
{
    mDevice = device;
    mBaudrate = baud;
}

void Vorlan::run()
{
    const auto mgr = SManager::mgr();
    try {
        waitForSysDaemon();
        readStartParams();
        startService();
        if (mBaudrate == 0) {
            mDevice = mpSysD->getCfgString("VorlanDev");
            mBaudrate = static_cast<unsigned int>(mpSysD->getCfgInt("VorlanBaud"));
        }
        if (!initLink(*mgr))
            sRunning = false;
        for (tBytes request; sRunning;) {
            try {
                serveOne(*mgr, request);
            } catch (const VorlanException& e) {
                if (e.keepRunning == 0)
                    break;
            }
        }
    } catch (const BusStopped&) { // the stop came while the system bus stood still: nothing is done on a guess
    }
    stopWorkers();
}

/// Without limit; a stop signal has to wait as well.
void Vorlan::waitForSysDaemon()
{
    while (!mpSysD->sysDaemonReady()) {
        logOut({"Waiting for sysdaemon ready...retrying.."});
        sleepMs(100);
    }
}

void Vorlan::readStartParams()
{
    for (const char* name : {"UpdateMode", "UpdatePath", "UpdateTrigger", "BootLogoMD5Sum", "AnimatedBootLogoMD5Sum"})
        mpSysD->addCfgVar(name);
    mStartupParam = mpSysD->getParamInt(eParamOrientation);
    mIsHypervisorSys = mpSysD->getCfgBool("IsHypervisorSys");
    if (mIsHypervisorSys) {
        mTimeReceived = true; // there QV does not set the time
        mpSysD->addCfgVar("ETHInternal");
    }
    mStartFlag = static_cast<signed char>(mpSysD->getParamInt(eParamStartCode) & 0xFF);
    mCheckAutoUpdate = mStartFlag == 0;
    mpSysD->setParamInt(eParamStartCode, 0); // the code counts for one start
    mpSysD->saveConfig();
}

bool Vorlan::initLink(SManager& mgr)
{
    mgr.mBaudrate = mBaudrate;
    mgr.mDevice = mDevice;
    return mpDataLink->init();
}

/// Where there was no thread for it, it is tried again each second.
void Vorlan::startService()
{
    using std::chrono::steady_clock;
    if (mpService->isRunning() || steady_clock::now() - mServiceTried < std::chrono::seconds(1))
        return;
    mServiceTried = steady_clock::now();
    mpService->start();
}

/// `request` is memory that one request leaves to the next.
void Vorlan::serveOne(SManager& mgr, tBytes& request)
{
    request.clear();
    if (request.capacity() > kKeptCapacity)
        request.shrink_to_fit();
    startService();
    if (mpDataLink->read(request)) {
        parse(request);
        return;
    }
    logOut({"Vorlan: Run: failed, restarting..."});
    mpDataLink.reset();
    mpDataLink = newDataLink();
    initLink(mgr); // what fails here shows in the next read
}

/// Everything is told to stop before anything is waited for.
void Vorlan::stopWorkers()
{
    mStopping = true;
    mpService->requestStop();
    if (mpLogoHandler)
        mpLogoHandler->stop(false);
    SDBusClients::clients()->stop();
    mpService->stop();
    if (mLogoThread.joinable())
        mLogoThread.join();
}
