#pragma once

#include "sim/Service.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace sim {

/// The system daemon "com.kelvora.sysdaemon" on the system bus, with the stores of a typical device.
class SysDaemon : public Service
{
public:
    using Value = std::variant<bool, std::int32_t, std::string>;
    /// A configuration variable may be registered and not set: it reads as false, 0 or empty.
    using CfgValue = std::variant<std::monostate, bool, std::int32_t, std::string>;

    SysDaemon(EventLoop& loop, Timeline& timeline, const PrivateBus& bus);
    ~SysDaemon() override;

    void setReady(bool ready);
    void setIpAddress(const std::string& address);

    /// The store of numbered parameters. Setting one here creates it and may change its type.
    void setParam(std::uint32_t number, Value value);
    void setParam(std::uint32_t number, const char* value) { setParam(number, Value(std::string(value))); }
    void removeParam(std::uint32_t number);
    std::optional<Value> param(std::uint32_t number) const;

    /// The store of named configuration values, likewise.
    void setCfg(const std::string& key, CfgValue value);
    void setCfg(const std::string& key, const char* value) { setCfg(key, CfgValue(std::string(value))); }
    void removeCfg(const std::string& key);
    /// Nothing for a name that is not registered.
    std::optional<CfgValue> cfg(const std::string& key) const;

    /// What the setters of the bus last received.
    std::uint64_t unixTime() const;
    std::uint32_t brightness() const;

protected:
    std::string detail(const std::string& member, sd_bus_message* request) const override;

private:
    void setDefaults();
    std::vector<tMember> members();

    bool mReady = true;
    std::string mIpAddress;
    std::map<std::uint32_t, Value> mParams;
    std::map<std::string, CfgValue> mCfg;
    std::uint64_t mUnixTime = 0;
    std::uint32_t mBrightness = 0;
};

/// The name that people give the parameter, empty for an unknown one.
const char* paramName(std::uint32_t number);

} // namespace sim
