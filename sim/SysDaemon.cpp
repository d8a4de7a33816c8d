#include "sim/SysDaemon.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace sim {

namespace {

constexpr const char* kNoSuchParam = "com.kelvora.sysdaemon.Error.NoSuchParameter";
constexpr const char* kNoSuchKey = "com.kelvora.sysdaemon.Error.NoSuchKey";
constexpr const char* kWrongType = "com.kelvora.sysdaemon.Error.WrongType";

struct tName
{
    std::uint32_t number;
    const char* name;
};

constexpr tName kNames[] = {
    {0, "visualisation mode"},
    {1, "host name"},
    {2, "network mode"},
    {3, "IP address"},
    {4, "netmask"},
    {5, "gateway"},
    {6, "DNS activated"},
    {7, "DNS domain"},
    {8, "DNS mode"},
    {9, "DNS server 0"},
    {10, "DNS server 1"},
    {11, "DNS server 2"},
    {24, "orientation"},
    {25, "logo offset X"},
    {26, "logo offset Y"},
    {27, "logo frame delay"},
    {61, "update mode"},
    {66, "update path"},
    {80, "VNC server"},
    {86, "remote-desktop flag"},
    {90, "web address"},
    {92, "show logos"},
    {111, "time zone"},
    {112, "time-zone flag"},
    {127, "register text"},
    {172, "raw brightness"},
    {180, "register word A"},
    {181, "register word B"},
    {190, "byte list's last"},
    {191, "byte list's size"},
    {192, "byte list"},
    {193, "byte list"},
    {194, "byte list"},
    {200, "word list's size"},
    {201, "word list"},
    {202, "word list"},
    {203, "word list"},
    {210, "show QV's status"},
    {211, "start code"},
    {214, "QV's address"},
};

template <class T>
int read(sd_bus_message* message, T& out)
{
    if constexpr (std::is_same_v<T, bool>) {
        int value = 0;
        const int result = sd_bus_message_read(message, "b", &value);
        out = value != 0;
        return result;
    } else if constexpr (std::is_same_v<T, std::string>) {
        const char* value = "";
        const int result = sd_bus_message_read(message, "s", &value);
        out = value;
        return result;
    } else {
        return sd_bus_message_read_basic(message, std::is_signed_v<T> ? 'i' : 'u', &out);
    }
}

template <class T>
int append(sd_bus_message* message, const T& value)
{
    if constexpr (std::is_same_v<T, bool>)
        return sd_bus_message_append(message, "b", value ? 1 : 0);
    else if constexpr (std::is_same_v<T, std::string>)
        return sd_bus_message_append(message, "s", value.c_str());
    else
        return sd_bus_message_append(message, "i", value);
}

template <class T, class Store>
int get(Store& store, const char* unknown, sd_bus_message* request, sd_bus_message* reply, sd_bus_error* error)
{
    typename Store::key_type key{};
    if (const int result = read(request, key); result < 0)
        return result;
    const auto found = store.find(key);
    if (found == store.end())
        return sd_bus_error_set(error, unknown, "no such name");
    if (const T* value = std::get_if<T>(&found->second); value != nullptr)
        return append(reply, *value);
    if constexpr (std::is_same_v<typename Store::mapped_type, SysDaemon::CfgValue>)
        if (std::holds_alternative<std::monostate>(found->second))
            return append(reply, T{});
    return sd_bus_error_set(error, kWrongType, "of another type");
}

template <class T, class Store>
int set(Store& store, const char* unknown, sd_bus_message* request, sd_bus_error* error)
{
    typename Store::key_type key{};
    T value{};
    if (read(request, key) < 0 || read(request, value) < 0)
        return -EBADMSG;
    const auto found = store.find(key);
    if (found == store.end())
        return sd_bus_error_set(error, unknown, "no such name");
    bool fits = std::holds_alternative<T>(found->second);
    if constexpr (std::is_same_v<typename Store::mapped_type, SysDaemon::CfgValue>)
        fits = fits || std::holds_alternative<std::monostate>(found->second);
    if (!fits)
        return sd_bus_error_set(error, kWrongType, "of another type");
    found->second = std::move(value);
    return 0;
}

int nothing(sd_bus_message*, sd_bus_message*, sd_bus_error*)
{
    return 0;
}

} // namespace

const char* paramName(std::uint32_t number)
{
    const auto* found =
        std::find_if(std::begin(kNames), std::end(kNames), [&](const tName& name) { return name.number == number; });
    return found == std::end(kNames) ? "" : found->name;
}

SysDaemon::SysDaemon(EventLoop& loop, Timeline& timeline, const PrivateBus& bus)
    : Service(
          loop, timeline, bus,
          {"sysd", ChannelE::eSystemBus, "com.kelvora.sysdaemon", "/com/kelvora/sysdaemon", "com.kelvora.sysdaemon"})
{
    setDefaults();
    setMembers(members());
    comeBack();
}

SysDaemon::~SysDaemon()
{
    shutDown();
}

void SysDaemon::setDefaults()
{
    mIpAddress = "192.168.10.20";
    const std::string none;
    mParams = {
        {0, 3},      {1, "display"}, {2, "DHCPClient"}, {3, none},      {4, none},       {5, none},   {6, false},
        {7, none},   {8, 1},         {9, none},         {10, none},     {11, none},      {24, 0},     {25, 10},
        {26, 20},    {27, 40},       {61, 0},           {66, none},     {80, none},      {86, false}, {90, none},
        {92, true},  {111, 27},      {112, true},       {127, "1.4.2"}, {172, 200},      {180, 1280}, {181, 800},
        {190, 9},    {191, 3},       {192, 1},          {193, 2},       {194, 3},        {200, 2},    {201, 2350},
        {202, -450}, {203, 0},       {210, true},       {211, 0},       {214, "0.0.0.0"}};
    mCfg = {{"VorlanDev", "/dev/ttyS0"},   {"VorlanBaud", 115200},
            {"IsHypervisorSys", false},    {"VisuURL", "http://localhost:8080/index.html"},
            {"VisuMode", "Web"},           {"Startmode", 0},
            {"SelectedFavoriteWeb", none}, {"UpdateTrigger", 0},
            {"ETHInternal", "eth1"},       {"EthDev", "eth0"}};
}

std::vector<Service::tMember> SysDaemon::members()
{
    const auto getParam = [this]<class T>(T) -> Handler {
        return [this](auto* request, auto* reply, auto* error) {
            return get<T>(mParams, kNoSuchParam, request, reply, error);
        };
    };
    const auto setParam = [this]<class T>(T) -> Handler {
        return [this](auto* request, auto*, auto* error) { return set<T>(mParams, kNoSuchParam, request, error); };
    };
    const auto getCfg = [this]<class T>(T) -> Handler {
        return
            [this](auto* request, auto* reply, auto* error) { return get<T>(mCfg, kNoSuchKey, request, reply, error); };
    };
    const auto setCfg = [this]<class T>(T) -> Handler {
        return [this](auto* request, auto*, auto* error) { return set<T>(mCfg, kNoSuchKey, request, error); };
    };
    const auto ready = [this](auto*, auto* reply, auto*) { return append(reply, mReady); };
    const auto setTime = [this](auto* request, auto*, auto*) { return sd_bus_message_read(request, "t", &mUnixTime); };
    const auto setZone = [this](auto* request, auto*, auto*) {
        std::uint32_t zone = 0;
        int flag = 0;
        const int result = sd_bus_message_read(request, "ub", &zone, &flag);
        mParams[111] = static_cast<std::int32_t>(zone); // the store keeps it as a signed number
        mParams[112] = flag != 0;
        return result;
    };
    const auto setBrightness = [this](auto* request, auto*, auto*) {
        return sd_bus_message_read(request, "u", &mBrightness);
    };
    const auto setRaw = [this](auto* request, auto*, auto*) {
        std::uint32_t raw = 0;
        const int result = sd_bus_message_read(request, "u", &raw);
        mParams[172] = static_cast<std::int32_t>(raw); // the store keeps it as a signed number
        return result;
    };
    const auto address = [this](auto*, auto* reply, auto*) { return append(reply, mIpAddress); };
    const auto addVar = [this](auto* request, auto*, auto*) {
        std::string key;
        const int result = read(request, key);
        mCfg.try_emplace(key);
        return result;
    };
    const std::int32_t number = 0;
    const std::string text;
    return {{"Ready", "", "b", ready, true},
            {"SetUnixTime", "t", "", setTime},
            {"SetTimeZone", "ub", "", setZone},
            {"SetBrightness", "u", "", setBrightness},
            {"SetBrightnessRaw", "u", "", setRaw},
            {"BeepParam", "uu", "", nothing},
            {"Beep", "", "", nothing},
            {"GetNetIPv4Addr", "", "s", address},
            {"GetParamBool", "u", "b", getParam(false)},
            {"GetParamInt", "u", "i", getParam(number)},
            {"GetParamString", "u", "s", getParam(text)},
            {"SetParamBool", "ub", "", setParam(false)},
            {"SetParamInt", "ui", "", setParam(number)},
            {"SetParamString", "us", "", setParam(text)},
            {"GetCfgInt", "s", "i", getCfg(number)},
            {"GetCfgBool", "s", "b", getCfg(false)},
            {"GetCfgString", "s", "s", getCfg(text)},
            {"SetCfgString", "ss", "", setCfg(text)},
            {"SetCfgInt", "si", "", setCfg(number)},
            {"AddCfgVar", "s", "", addVar},
            {"EmulateInputEvent", "", "", nothing},
            {"SysUpdate", "", "", nothing},
            {"SaveConfig", "", "", nothing},
            {"LoadConfig", "", "", nothing},
            {"ConfigureNetwork", "", "", nothing},
            {"ConfigureNetIf", "sa{sv}", "", nothing}};
}

std::string SysDaemon::detail(const std::string& member, sd_bus_message* request) const
{
    std::uint32_t number = 0;
    if (member.find("Param") == std::string::npos || member == "BeepParam" ||
        sd_bus_message_read(request, "u", &number) <= 0)
        return "";
    return paramName(number);
}

void SysDaemon::setReady(bool ready)
{
    mLoop.call([&] { mReady = ready; });
}

void SysDaemon::setIpAddress(const std::string& address)
{
    mLoop.call([&] { mIpAddress = address; });
}

void SysDaemon::setParam(std::uint32_t number, Value value)
{
    mLoop.call([&] { mParams[number] = std::move(value); });
}

void SysDaemon::removeParam(std::uint32_t number)
{
    mLoop.call([&] { mParams.erase(number); });
}

std::optional<SysDaemon::Value> SysDaemon::param(std::uint32_t number) const
{
    return mLoop.call([&]() -> std::optional<Value> {
        const auto found = mParams.find(number);
        return found == mParams.end() ? std::nullopt : std::optional(found->second);
    });
}

void SysDaemon::setCfg(const std::string& key, CfgValue value)
{
    mLoop.call([&] { mCfg[key] = std::move(value); });
}

void SysDaemon::removeCfg(const std::string& key)
{
    mLoop.call([&] { mCfg.erase(key); });
}

std::optional<SysDaemon::CfgValue> SysDaemon::cfg(const std::string& key) const
{
    return mLoop.call([&]() -> std::optional<CfgValue> {
        const auto found = mCfg.find(key);
        return found == mCfg.end() ? std::nullopt : std::optional(found->second);
    });
}

std::uint64_t SysDaemon::unixTime() const
{
    return mLoop.call([this] { return mUnixTime; });
}

std::uint32_t SysDaemon::brightness() const
{
    return mLoop.call([this] { return mBrightness; });
}

} // namespace sim
