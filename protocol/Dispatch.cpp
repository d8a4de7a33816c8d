#include "core/Vorlan.h"
#include "dbus/SDBusSysD.h"
#include "link/SDataLink.h"
#include "os/Log.h"
#include "protocol/Wire.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

namespace {

/// A reply message with its status byte, with room for what the handlers and the data link add.
std::unique_ptr<Vorlan::tBytes> newReply(bool error, unsigned char cmd, std::size_t payload)
{
    constexpr std::size_t kHeaderAndCrc = 3;
    auto message = std::make_unique<Vorlan::tBytes>();
    message->reserve(1 + payload + kHeaderAndCrc);
    message->push_back(static_cast<unsigned char>((cmd & wire::kCommandMask) | (error ? wire::kErrorBit : 0)));
    return message;
}

unsigned int byteAt(std::uint64_t pos, const Vorlan::tBytes& data)
{
    return pos < data.size() ? data[static_cast<std::size_t>(pos)] : 0U;
}

} // namespace

bool Vorlan::parse(tBytes& data)
{
    const unsigned char first = data.empty() ? 0 : data[0];
    const unsigned char cmd = first & wire::kCommandMask;
    bool ok = false;
    // a register request without an address is no known command
    if (cmd == wire::eCmdReadReg && data.size() >= 2)
        return readReg(data);
    if (cmd == wire::eCmdWriteReg && data.size() >= 2)
        ok = writeReg(data);
    else if (cmd == wire::eCmdCall)
        ok = data.size() >= 2 && parseCall(data);
    else {
        reply(true, cmd);
        logErr({"Vorlan: unknown cmd detected: ", std::to_string(first)});
        return false;
    }
    reply(!ok, cmd);
    return ok;
}

bool Vorlan::parseCall(tBytes& data)
{
    struct tHandler
    {
        std::size_t length; ///< of the whole message; 0: the handler checks it
        bool (Vorlan::*call)(tBytes&);
    };
    static constexpr tHandler kHandlers[] = {
        {10, &Vorlan::setTime},      {0, &Vorlan::setCfgStr},        {0, &Vorlan::setCfgLong},
        {0, &Vorlan::applyConfig},   {0, &Vorlan::startUpdate},      {2, &Vorlan::emuInputEv},
        {3, &Vorlan::setBrightness}, {3, &Vorlan::setBrightnessRaw}, {6, &Vorlan::beepParam},
        {2, &Vorlan::beep},          {2, &Vorlan::clearStartCode},   {0, &Vorlan::appTriggeredUpdate},
        {0, &Vorlan::setNetworkCfg},
    };
    static_assert(std::size(kHandlers) == std::size(wire::kMethods));
    const unsigned int method = data[1];
    if (method >= std::size(kHandlers)) {
        logErr({"Vorlan: unknown methodID detected: ", std::to_string(method)});
        return false;
    }
    const tHandler& handler = kHandlers[method];
    return (handler.length == 0 || handler.length == data.size()) && (this->*handler.call)(data);
}

bool Vorlan::setTime(tBytes& data)
{
    if (mIsHypervisorSys)
        return true;
    mpSysD->setTime(toUInt64(2, data));
    if (!mTimeReceived) {
        mTimeReceived = true;
        tryApplyCfg();
    }
    return true;
}

bool Vorlan::applyConfig(tBytes&)
{
    logOut({"Vorlan: ApplyConfig"});
    mApplyConfigRequested = true;
    tryApplyCfg();
    return true;
}

bool Vorlan::startUpdate(tBytes&)
{
    reply(false, wire::eCmdCall); // first: there is no coming back from here
    mpSysD->startUpdate();
    throw VorlanException("Updating...", 0);
}

bool Vorlan::emuInputEv(tBytes&)
{
    mpSysD->emuInputEv();
    return true;
}

bool Vorlan::setBrightness(tBytes& data)
{
    mpSysD->setBrightness(data[2]);
    return true;
}

bool Vorlan::setBrightnessRaw(tBytes& data)
{
    mpSysD->setBrightnessRaw(data[2]);
    return true;
}

bool Vorlan::beepParam(tBytes& data)
{
    mpSysD->beep(byteAt(2, data) | byteAt(3, data) << 8U, byteAt(4, data) | byteAt(5, data) << 8U);
    return true;
}

bool Vorlan::beep(tBytes&)
{
    mpSysD->beep();
    return true;
}

bool Vorlan::clearStartCode(tBytes&)
{
    mStartFlag = 0;
    return true;
}

void Vorlan::reply(bool error, unsigned char cmd)
{
    mpDataLink->reply(newReply(error, cmd, 0));
}

void Vorlan::reply(bool error, unsigned char cmd, unsigned char value)
{
    auto message = newReply(error, cmd, 1);
    message->push_back(value);
    mpDataLink->reply(std::move(message));
}

void Vorlan::reply(bool error, unsigned char cmd, const tBytes& data)
{
    auto message = newReply(error, cmd, data.size());
    message->insert(message->end(), data.begin(), data.end());
    mpDataLink->reply(std::move(message));
}

void Vorlan::reply(bool error, unsigned char cmd, const std::string& text)
{
    auto message = newReply(error, cmd, text.size() + 1);
    message->insert(message->end(), text.begin(), text.end());
    message->push_back(0);
    mpDataLink->reply(std::move(message));
}

int Vorlan::toInt(unsigned int pos, const tBytes& data)
{
    const std::uint64_t at = pos; // does not wrap where std::size_t has 32 bits
    return static_cast<int>(byteAt(at, data) | byteAt(at + 1, data) << 8U | byteAt(at + 2, data) << 16U |
                            byteAt(at + 3, data) << 24U);
}

unsigned long long Vorlan::toUInt64(unsigned int pos, const tBytes& data)
{
    return static_cast<unsigned long long>(static_cast<long long>(toInt(pos, data)));
}

std::size_t Vorlan::parseString(const tBytes& data, unsigned int pos, std::string& out)
{
    if (pos >= data.size())
        return 0;
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(pos);
    const auto end = std::find(begin, data.end(), 0);
    if (end == data.end())
        return 0;
    out.append(begin, end);
    return static_cast<std::size_t>(end - begin);
}
