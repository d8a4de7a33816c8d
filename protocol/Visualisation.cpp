#include "core/Vorlan.h"
#include "core/VorlanCfg.h"
#include "dbus/SDBusApp.h"
#include "dbus/SDBusLogoHandler.h"
#include "dbus/SDBusManager.h"
#include "dbus/SDBusSysD.h"
#include "os/Log.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <system_error>

namespace {

/// Values of eParamVisuMode.
enum VisuModeE : int
{
    eVisuRemoteDesktop = 1,
    eVisuWeb = 2,
    eVisuNone = 3
};

constexpr int kAutoUpdateOnStart = 1;
constexpr long long kExitDelayS = 4; ///< the idle application stays until the visualisation can take the screen

} // namespace

/// Called whenever one of the conditions has come true: with the last of them the start begins, once; when the logos
/// have finished, each later call applies the configuration again.
void Vorlan::tryApplyCfg()
{
    if (mQVIpAddrReceived && mTimeReceived && mQVStatusRunning && mApplyConfigRequested && !mStartupDone) {
        mStartupDone = true;
        if (!mIsHypervisorSys)
            mpSysD->configureNet();
        startLogos();
        mpService->emitShowQVStatus();
        if (mCheckAutoUpdate && mpSysD->getCfgInt("UpdateTrigger") == kAutoUpdateOnStart)
            startAutoUpdate();
        if (!mLogoThread.joinable())
            afterLogos();
    } else if (mLogosFinished) {
        applyCfg();
    }
}

/// Without a thread to be had there are no logos.
void Vorlan::startLogos()
{
    mpLogoHandler = std::make_unique<SDBusLogoHandler>();
    try {
        mLogoThread = std::thread(&Vorlan::startLogoHandler, this);
    } catch (const std::system_error&) {
    }
}

/// The logo thread.
void Vorlan::startLogoHandler()
{
    try {
        mpService->emitShowLogos();
        if (mStopping)
            return;
        logOut({"Vorlan::startLogoHandler"});
        mpLogoHandler->run();
        if (mStopping)
            return;
        logOut({"Vorlan::startLogoHandler: finished"});
        afterLogos();
    } catch (const BusStopped&) { // of the settings nothing more is read, so nothing more is written
    }
}

void Vorlan::afterLogos()
{
    mLogosFinished = true;
    mpService->sendLogosFinished();
    applyCfg();
}

void Vorlan::applyCfg()
{
    const std::lock_guard lock(mApplyMutex);
    const auto cfg = VorlanCfg::cfg();
    const int orientation = mpSysD->getParamInt(eParamOrientation);
    mCfgApplied = true;
    mpSysD->saveConfig();
    const bool started = applyVisu();
    mpSysD->loadConfig();
    if (mStartupParam % 180 != orientation % 180) // a turn by 180 degrees changes nothing for the layout
        mpService->emitOrientationChanged();
    mStartupParam = orientation;
    if (started) {
        mpApp->delayedExit(kExitDelayS);
        return;
    }
    cfg->AnimationEnabled = false;
    cfg->StatusText.set("Please check your terminal configuration.");
    mpService->emitAnimationCfg();
    mpService->emitStatusTxt();
}

/// Hands mode and address to the system daemon. False when there is no address, so nothing to show.
bool Vorlan::applyVisu()
{
    std::string url = mpSysD->getCfgString("VisuURL");
    lTrim(url);
    if (url.empty()) {
        mpSysD->setParamInt(eParamVisuMode, eVisuNone);
        return false;
    }
    doWebUrlMods(url);
    if (mpSysD->getCfgString("VisuMode") == "VNC") {
        mpSysD->setParamInt(eParamVisuMode, eVisuRemoteDesktop);
        mpSysD->setParamString(eParamVncServer, url);
        mpSysD->setParamBool(eParamVisu86, mpSysD->getParamBool(eParamShowLogos));
    } else {
        mpSysD->setParamInt(eParamVisuMode, eVisuWeb);
        mpSysD->setParamString(eParamWebUrl, url);
    }
    return true;
}

void Vorlan::lTrim(std::string& text)
{
    text.erase(text.begin(),
               std::find_if_not(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c) != 0; }));
}

void Vorlan::doWebUrlMods(std::string& url)
{
    const std::lock_guard lock(mQVAddrMutex);
    const std::string address = VorlanCfg::cfg()->IpAddrQV.get();
    const bool named = doWebUrlSubstitution(url, "localhost", address);
    const bool numbered = doWebUrlSubstitution(url, "127.0.0.1", address); // also when the first one hit
    mUrlUsesQVIpAddr = named || numbered;
}

bool Vorlan::doWebUrlSubstitution(std::string& url, const std::string& pattern, const std::string& replacement)
{
    const std::size_t pos = url.find(pattern);
    if (pos == std::string::npos)
        return false;
    const std::string_view before = std::string_view(url).substr(0, pos);
    if (!before.empty() && before != "http://" && before != "https://")
        return false;
    url.replace(pos, pattern.size(), replacement);
    return true;
}
