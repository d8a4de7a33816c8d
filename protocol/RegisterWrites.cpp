#include "core/Vorlan.h"
#include "core/VorlanCfg.h"
#include "dbus/SDBusManager.h"
#include "dbus/SDBusSysD.h"
#include "os/Log.h"
#include "protocol/Wire.h"

#include <iterator>
#include <utility>

namespace {

constexpr std::size_t kByteWrite = 3; ///< length of a request that writes one byte
constexpr std::size_t kWordWrite = 6; ///< length of a request that writes 32 bits

} // namespace

bool Vorlan::writeReg(tBytes& request)
{
    const auto cfg = VorlanCfg::cfg();
    static constexpr bool (Vorlan::*kWriters[])(const tBytes&, VorlanCfg&) = {
        &Vorlan::writeQVProtVersion, &Vorlan::writeQVStatus, &Vorlan::writeQVIpAddr,     &Vorlan::writeQVText1,
        &Vorlan::writeQVText2,       &Vorlan::writeTimeZone, &Vorlan::writeTimeZoneFlag,
    };
    static_assert(std::size(kWriters) == std::size(wire::kWriteRegisters));
    const unsigned int address = request[1];
    if (address >= std::size(kWriters)) {
        logErr({"Vorlan: unknown address for register write detected: ", std::to_string(address)});
        return false;
    }
    return (this->*kWriters[address])(request, *cfg);
}

/// Logs first: a request of the wrong length is logged too.
bool Vorlan::writeQVProtVersion(const tBytes& request, VorlanCfg& cfg)
{
    const unsigned char version = request.size() > 2 ? request[2] : 0;
    logOut({"Vorlan: writeReg eRegWrQVProtVersion ", std::to_string(version)});
    if (request.size() != kByteWrite)
        return false;
    cfg.QVProtVersion = version;
    return true;
}

bool Vorlan::writeQVStatus(const tBytes& request, VorlanCfg& cfg)
{
    if (request.size() != kByteWrite)
        return false;
    const unsigned char status = request[2];
    if (status == cfg.StatusQV)
        return true;
    if (status == wire::kStatusRunning && !mQVStatusRunning) {
        mQVStatusRunning = true;
        tryApplyCfg();
    }
    cfg.StatusQV = status;
    mpService->emitQVStatus();
    return true;
}

bool Vorlan::writeQVIpAddr(const tBytes& request, VorlanCfg& cfg)
{
    std::string address;
    if (parseString(request, 2, address) == 0)
        return false;
    if (address == "0.0.0.0" || address == cfg.IpAddrQV.get())
        return true;
    {
        const std::lock_guard lock(mQVAddrMutex);
        cfg.IpAddrQV.set(address);
    }
    mpSysD->setParamString(eParamQVIpAddr, address);
    mpService->emitQVIpAddr();
    if (!mQVIpAddrReceived || mUrlUsesQVIpAddr) {
        mQVIpAddrReceived = true;
        tryApplyCfg();
    }
    return true;
}

bool Vorlan::writeQVText1(const tBytes& request, VorlanCfg& cfg)
{
    std::string text;
    if (parseString(request, 2, text) == 0)
        return false;
    cfg.QVText1 = std::move(text);
    return true;
}

bool Vorlan::writeQVText2(const tBytes& request, VorlanCfg& cfg)
{
    std::string text;
    if (parseString(request, 2, text) == 0)
        return false;
    cfg.QVText2 = std::move(text);
    return true;
}

bool Vorlan::writeTimeZone(const tBytes& request, VorlanCfg&)
{
    if (request.size() != kWordWrite)
        return false;
    const int index = toInt(2, request);
    if (index != mpSysD->getParamInt(eParamTimeZone))
        mpSysD->setTimeZone(static_cast<unsigned int>(index), mpSysD->getParamBool(eParamTimeZoneFlag));
    return true;
}

bool Vorlan::writeTimeZoneFlag(const tBytes& request, VorlanCfg&)
{
    if (request.size() != kByteWrite)
        return false;
    const bool flag = request[2] != 0;
    if (flag != mpSysD->getParamBool(eParamTimeZoneFlag))
        mpSysD->setTimeZone(static_cast<unsigned int>(mpSysD->getParamInt(eParamTimeZone)), flag);
    return true;
}
