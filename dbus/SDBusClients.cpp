#include "dbus/SDBusClients.h"

namespace {
std::mutex sInstanceMutex;
}

constinit std::shared_ptr<SDBusClients> SDBusClients::smpInstance;

SDBusClients::SDBusClients()
{
    mApp = std::make_shared<SDBusApp>();
    mSysD = std::make_shared<SDBusSysD>();
}

std::shared_ptr<SDBusClients> SDBusClients::clients()
{
    const std::lock_guard lock(sInstanceMutex);
    if (!smpInstance)
        smpInstance = std::make_shared<SDBusClients>();
    return smpInstance;
}

void SDBusClients::stop()
{
    mApp->stop();
    mSysD->stop();
}
