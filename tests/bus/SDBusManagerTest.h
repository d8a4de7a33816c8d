#pragma once

#include "core/VorlanCfg.h"
#include "dbus/SDBusManager.h"
#include "tests/bus/BusTest.h"

#include <memory>
#include <string>

/// The daemon's service object in this process, stopped at the end of each test.
class SDBusManagerTest : public BusTest
{
protected:
    explicit SDBusManagerTest(const char* callTimeOut = kPatient)
        : BusTest(callTimeOut)
    {
        mCfg->AnimationEnabled = true;
        mCfg->StatusText.set("Waiting for configuration...");
        mCfg->StatusQV = 0;
        mCfg->IpAddrQV.set("");
    }
    ~SDBusManagerTest() override { mService.stop(); }

    void startService()
    {
        mService.start();
        ASSERT_TRUE(mDevice.desktop().waitForService()) << mStderr.text();
    }

    /// The property's value as text, or the error's name.
    std::string read(const std::string& property)
    {
        const auto result = mDevice.desktop().property(property);
        return result.ok ? result.value : result.errorName;
    }

    /// Stops the service; it must not take long.
    void expectStops();

    static constexpr const char* kRetry = "SDBusManager: Failed init DBus...retrying..\n";
    static constexpr const char* kStopping = "SDBusManager: Stopping...\n";

    std::shared_ptr<VorlanCfg> mCfg = VorlanCfg::cfg();
    SDBusManager mService;
};
