#include "core/Vorlan.h"
#include "dbus/SDBusSysD.h"
#include "os/Log.h"

namespace {

// What is more than this is served, but not remembered.
constexpr std::size_t kMaxInterfaces = 64;
constexpr std::size_t kMaxRecord = 4096; ///< bytes of a request

/// Reads the fields of a request one after another. What is missing or not ended is empty, and the next field begins
/// one byte behind what was read.
class FieldReader
{
public:
    explicit FieldReader(const Vorlan::tBytes& data)
        : mData(data)
    {}

    std::string text()
    {
        std::string value;
        mPos += static_cast<unsigned int>(Vorlan::parseString(mData, mPos, value)) + 1;
        return value;
    }

    std::uint8_t byte()
    {
        const std::uint8_t value = mPos < mData.size() ? mData[mPos] : std::uint8_t{0};
        ++mPos;
        return value;
    }

private:
    const Vorlan::tBytes& mData;
    unsigned int mPos = 2;
};

NetConf readNetConf(FieldReader& fields)
{
    NetConf conf;
    for (std::string NetConf::*field : {&NetConf::mode, &NetConf::ipAddress, &NetConf::netmask, &NetConf::gateway,
                                        &NetConf::hostname, &NetConf::dnsDomain})
        conf.*field = fields.text();
    conf.dnsMode = fields.byte();
    for (std::string NetConf::*field : {&NetConf::dnsServer0, &NetConf::dnsServer1, &NetConf::dnsServer2})
        conf.*field = fields.text();
    return conf;
}

} // namespace

/// Accepted in every case, also when it comes too early and is ignored.
bool Vorlan::setNetworkCfg(tBytes& data)
{
    if (!mApplyConfigRequested)
        return true;
    FieldReader fields(data);
    const std::string interface = fields.text();
    NetConf conf = readNetConf(fields);
    if (data.size() <= kMaxRecord)
        rememberNetConf(interface, conf);
    const bool internal = interface == mpSysD->getCfgString("ETHInternal");
    if (internal)
        conf.dnsMode = 0;
    if (mIsHypervisorSys && !internal)
        storeNetConf(conf);
    else
        applyNetConf(conf);
    return true;
}

void Vorlan::rememberNetConf(const std::string& interface, const NetConf& conf)
{
    const auto known = mpNetConfs->find(interface);
    if (known != mpNetConfs->end())
        known->second = conf;
    else if (mpNetConfs->size() < kMaxInterfaces)
        mpNetConfs->emplace(interface, conf);
}

/// Whatever interface was meant, it is the configured device that is set up, and the line says the same.
void Vorlan::applyNetConf(const NetConf& conf)
{
    mpSysD->configureNetIf(mpSysD->getCfgString("EthDev"), conf);
    logErr({"Vorlan: setNetworkCfg: ETHInternal: ", mpSysD->getCfgString("EthDev")});
}

void Vorlan::storeNetConf(const NetConf& conf)
{
    mpSysD->setParamString(eParamNetHostname, conf.hostname);
    mpSysD->setParamString(eParamNetMode, conf.mode == "DhcpClient" ? "DHCPClient" : conf.mode);
    mpSysD->setParamString(eParamNetIpAddress, conf.ipAddress);
    mpSysD->setParamString(eParamNetNetmask, conf.netmask);
    mpSysD->setParamString(eParamNetGateway, conf.gateway);
    mpSysD->setParamBool(eParamNetDnsActivated, conf.isDnsActivated());
    mpSysD->setParamString(eParamNetDnsDomain, conf.dnsDomain);
    mpSysD->setParamInt(eParamNetDnsMode, conf.dnsMode);
    mpSysD->setParamString(eParamNetDnsServer0, conf.dnsServer0);
    mpSysD->setParamString(eParamNetDnsServer1, conf.dnsServer1);
    mpSysD->setParamString(eParamNetDnsServer2, conf.dnsServer2);
    mpSysD->saveConfig();
}
