#include "core/Vorlan.h"
#include "dbus/SDBusSysD.h"
#include "os/Log.h"
#include "protocol/Wire.h"

#include <iterator>

namespace {

unsigned char lowByte(int value)
{
    return static_cast<unsigned char>(static_cast<unsigned int>(value) & 0xFFU);
}

unsigned char secondByte(int value)
{
    return static_cast<unsigned char>(static_cast<unsigned int>(value) >> 8U & 0xFFU);
}

ParamE listEntry(ParamE count, int index)
{
    return static_cast<ParamE>(count + 1U + static_cast<std::uint32_t>(index));
}

constexpr int kMaxListEntries = 0x10000; ///< whatever the system daemon says: each costs two bus calls

} // namespace

/// An unknown address gets no reply at all, unlike a write to one.
bool Vorlan::readReg(tBytes& request)
{
    static constexpr void (Vorlan::*kReaders[])() = {
        &Vorlan::readConst0,         &Vorlan::readCfgApplied,        &Vorlan::readIpAddr,     &Vorlan::readParamText,
        &Vorlan::readHundredthsList, &Vorlan::readByteList,          &Vorlan::readParamWordA, &Vorlan::readParamWordB,
        &Vorlan::readStartCode,      &Vorlan::readDispBrightnessRaw,
    };
    static_assert(std::size(kReaders) == std::size(wire::kReadRegisters));
    const unsigned int address = request[1];
    if (address >= std::size(kReaders)) {
        logErr({"Vorlan: unknown address for register read detected: ", std::to_string(address)});
        return false;
    }
    (this->*kReaders[address])();
    return true;
}

void Vorlan::readConst0()
{
    reply(false, wire::eCmdReadReg, static_cast<unsigned char>(0));
}

void Vorlan::readCfgApplied()
{
    reply(false, wire::eCmdReadReg, static_cast<unsigned char>(mCfgApplied ? 1 : 0));
}

void Vorlan::readIpAddr()
{
    std::string address;
    mpSysD->getIpAddress(address);
    reply(false, wire::eCmdReadReg, address);
}

void Vorlan::readParamText()
{
    reply(false, wire::eCmdReadReg, mpSysD->getParamString(eParamRegText127));
}

// Both lists ask for their length before each element: it may change while they are read.

void Vorlan::readHundredthsList()
{
    tBytes data;
    for (int i = 0; i < mpSysD->getParamInt(eParamListACount) && i < kMaxListEntries; ++i) {
        const int value = mpSysD->getParamInt(listEntry(eParamListACount, i)) / 100;
        data.push_back(lowByte(value));
        data.push_back(secondByte(value));
    }
    reply(false, wire::eCmdReadReg, data);
}

void Vorlan::readByteList()
{
    tBytes data;
    for (int i = 0; i < mpSysD->getParamInt(eParamListBCount) && i < kMaxListEntries; ++i)
        data.push_back(lowByte(mpSysD->getParamInt(listEntry(eParamListBCount, i))));
    data.push_back(lowByte(mpSysD->getParamInt(eParamListB)));
    reply(false, wire::eCmdReadReg, data);
}

void Vorlan::replyWord(int value)
{
    reply(false, wire::eCmdReadReg, tBytes{lowByte(value), secondByte(value)});
}

void Vorlan::readParamWordA()
{
    replyWord(mpSysD->getParamInt(eParamReg180));
}

void Vorlan::readParamWordB()
{
    replyWord(mpSysD->getParamInt(eParamReg181));
}

void Vorlan::readStartCode()
{
    reply(false, wire::eCmdReadReg, tBytes{lowByte(mStartFlag)});
}

void Vorlan::readDispBrightnessRaw()
{
    const unsigned char brightness = lowByte(mpSysD->getParamInt(eParamReg172));
    logOut({"Vorlan: readReg eRegRdDispBrightnessRaw ", std::to_string(brightness)});
    reply(false, wire::eCmdReadReg, tBytes{brightness});
}
