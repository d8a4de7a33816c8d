#pragma once

#include "dbus/SDBusApp.h"
#include "dbus/SDBusSysD.h"

#include <memory>

/// The registry that creates the clients which the whole process shares, and hands out references to them.
class SDBusClients
{
public:
    /// The singleton, created by the first call.
    static std::shared_ptr<SDBusClients> clients();

    SDBusClients();

    /// Stops both clients: no call begins after this one.
    void stop();

    std::shared_ptr<SDBusSysD> mSysD;
    std::shared_ptr<SDBusApp> mApp;

    static std::shared_ptr<SDBusClients> smpInstance;
};
