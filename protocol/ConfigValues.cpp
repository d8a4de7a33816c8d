#include "core/Vorlan.h"
#include "dbus/SDBusSysD.h"
#include "dbus/SystemdManager.h"
#include "os/Log.h"

#include <cstdint>

namespace {

constexpr unsigned int kFirstText = 2;
constexpr int kUpdateByApplication = 3;

/// Where the field begins that follows a text of that length at kFirstText.
unsigned int behindText(std::size_t length)
{
    return static_cast<unsigned int>(kFirstText + length + 1);
}

} // namespace

/// A value that is missing sets the empty text: only the key is checked.
bool Vorlan::setCfgStr(tBytes& data)
{
    std::string key;
    const std::size_t length = parseString(data, kFirstText, key);
    if (length == 0)
        return false;
    std::string value;
    parseString(data, behindText(length), value);
    mpSysD->setCfgString(key, value);
    return true;
}

bool Vorlan::setCfgLong(tBytes& data)
{
    std::string key;
    const std::size_t length = parseString(data, kFirstText, key);
    if (length == 0 || data.size() < behindText(length) + sizeof(std::int32_t))
        return false;
    mpSysD->setCfgInt(key, toInt(behindText(length), data));
    return true;
}

/// Path and mode are saved before the update that reads them starts.
bool Vorlan::appTriggeredUpdate(tBytes& data)
{
    std::string path;
    if (parseString(data, kFirstText, path) == 0)
        return false;
    mpSysD->setParamString(eParamUpdatePath, path);
    mpSysD->setParamInt(eParamUpdateMode, kUpdateByApplication);
    mpSysD->saveConfig();
    mpSysD->startUpdate();
    return true;
}

void Vorlan::startAutoUpdate()
{
    logOut({"Vorlan::startAutoUpdate"});
    if (!startUnit("autoupdated.service", [] { return !sRunning; }))
        logErr({"Vorlan::startAutoUpdate: Failed to open dbus"});
}
