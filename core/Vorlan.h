#pragma once

#include "core/VorlanException.h"
#include "dbus/NetConf.h"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class SDataLink;
class SDBusApp;
class SDBusLogoHandler;
class SDBusManager;
class SDBusSysD;
class SManager;
class VorlanCfg;

/// Cleared by the stop signals, and when the link cannot be opened; looked at between two requests.
extern std::atomic<bool> sRunning;

/// The link controller: owns the data link to QV, the clients of the other services and the status service, and
/// handles QV's requests one at a time on the thread that calls run. A second thread of its own shows the boot logos
/// and applies the visualisation's settings after them.
class Vorlan
{
public:
    using tBytes = std::vector<unsigned char>;

    /// Installs the handlers of the stop signals.
    Vorlan();
    /// Waits until the last reply is written.
    virtual ~Vorlan();
    Vorlan(const Vorlan&) = delete;
    Vorlan& operator=(const Vorlan&) = delete;

    /// Creates the collaborators. To be called once, before all else.
    void init();

    /// Device path and rate in bit/s for run; rate 0: run takes both from the system daemon's configuration.
    void setSerialCfg(const std::string& device, unsigned int baud);

    /// The whole life of the link. Returns when the daemon is to stop; of what it started nothing runs any more but the
    /// last reply and a call on the idle application that is under way.
    void run();

    /// Handles one request message and sends its reply. True when the request was accepted; throws VorlanException
    /// when the daemon is to end after it.
    bool parse(tBytes& data);

    // Decoding. Positions are offsets into the whole message.

    /// 32 bits, little-endian; bytes beyond the end count as 0.
    static int toInt(unsigned int pos, const tBytes& data);
    /// The little-endian 32 bits at pos, sign-extended: the four bytes behind them never count.
    static unsigned long long toUInt64(unsigned int pos, const tBytes& data);
    /// Appends the text at pos to out, without the zero byte that must end it. Returns its length; 0 when there is
    /// none, whether it is empty, unterminated or beyond the end.
    static std::size_t parseString(const tBytes& data, unsigned int pos, std::string& out);

    static void lTrim(std::string& text);
    /// Replaces pattern by replacement where it is the host of url, which must be its first occurrence: at the start or
    /// right behind http:// or https://. Tells whether it did.
    static bool doWebUrlSubstitution(std::string& url, const std::string& pattern, const std::string& replacement);

private:
    // Life cycle
    void waitForSysDaemon();
    void readStartParams();
    void startService();
    std::unique_ptr<SDataLink> newDataLink();
    bool initLink(SManager& mgr);
    void serveOne(SManager& mgr, tBytes& request);
    void stopWorkers();

    // Replies: the status byte, then what the overload adds
    void reply(bool error, unsigned char cmd);
    void reply(bool error, unsigned char cmd, unsigned char value);
    void reply(bool error, unsigned char cmd, const tBytes& data);
    void reply(bool error, unsigned char cmd, const std::string& text);

    // Method calls: true when accepted
    bool parseCall(tBytes& data);
    bool setTime(tBytes& data);
    bool applyConfig(tBytes& data);
    bool startUpdate(tBytes& data);
    bool emuInputEv(tBytes& data);
    bool setBrightness(tBytes& data);
    bool setBrightnessRaw(tBytes& data);
    bool beepParam(tBytes& data);
    bool beep(tBytes& data);
    bool clearStartCode(tBytes& data);
    bool setCfgStr(tBytes& data);
    bool setCfgLong(tBytes& data);
    bool appTriggeredUpdate(tBytes& data);
    bool setNetworkCfg(tBytes& data);

    // Register reads: each sends its reply
    bool readReg(tBytes& request);
    void readConst0();
    void readCfgApplied();
    void readIpAddr();
    void readParamText();
    void readHundredthsList();
    void readByteList();
    void readParamWordA();
    void readParamWordB();
    void readStartCode();
    void readDispBrightnessRaw();
    void replyWord(int value);

    // Register writes: true when accepted
    bool writeReg(tBytes& request);
    bool writeQVProtVersion(const tBytes& request, VorlanCfg& cfg);
    bool writeQVStatus(const tBytes& request, VorlanCfg& cfg);
    bool writeQVIpAddr(const tBytes& request, VorlanCfg& cfg);
    bool writeQVText1(const tBytes& request, VorlanCfg& cfg);
    bool writeQVText2(const tBytes& request, VorlanCfg& cfg);
    bool writeTimeZone(const tBytes& request, VorlanCfg& cfg);
    bool writeTimeZoneFlag(const tBytes& request, VorlanCfg& cfg);

    // Network
    void rememberNetConf(const std::string& interface, const NetConf& conf);
    void applyNetConf(const NetConf& conf);
    void storeNetConf(const NetConf& conf);

    // Visualisation and update
    void tryApplyCfg();
    void startLogos();
    void startLogoHandler();
    void afterLogos();
    void applyCfg();
    bool applyVisu();
    void doWebUrlMods(std::string& url);
    void startAutoUpdate();

    std::unique_ptr<SDataLink> mpDataLink;
    std::shared_ptr<SDBusApp> mpApp;
    std::shared_ptr<SDBusSysD> mpSysD;
    std::unique_ptr<SDBusManager> mpService;
    std::unique_ptr<std::map<std::string, NetConf>>
        mpNetConfs; ///< last settings received, by interface; kept, not read
    std::string mDevice;
    unsigned int mBaudrate = 0; ///< 0: not given

    // No restart of the link resets any of these. Those that the logo thread shares are atomic.
    bool mTimeReceived = false;
    bool mQVIpAddrReceived = false;
    bool mApplyConfigRequested = false;
    bool mQVStatusRunning = false;
    bool mStartupDone = false;
    std::atomic<bool> mLogosFinished = false;
    std::atomic<bool> mCfgApplied = false;
    int mStartupParam = 0; ///< orientation last seen, in degrees; guarded by mApplyMutex once the logos run
    signed char mStartFlag = 0;
    bool mCheckAutoUpdate = false;
    bool mIsHypervisorSys = false;
    std::atomic<bool> mUrlUsesQVIpAddr = false;

    std::mutex mApplyMutex;  ///< applyCfg runs as a whole
    std::mutex mQVAddrMutex; ///< a change of QV's address comes before or after a URL's rewriting, never between
    std::unique_ptr<SDBusLogoHandler> mpLogoHandler; ///< made before the logo thread, outlives it
    std::thread mLogoThread;
    std::chrono::steady_clock::time_point mServiceTried; ///< when its thread was asked for
    std::atomic<bool> mStopping = false;
};
