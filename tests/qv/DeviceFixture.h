#pragma once

#include "tests/process/RigTest.h"
#include "tests/qv/Command.h"
#include "tests/qv/LineBridge.h"

/// The real daemon on the simulated device, and a device name behind which vorlan-qv finds it.
class CommandTest : public rig::RigTest
{
protected:
    void startDaemon()
    {
        sim::Daemon::tOptions options;
        options.arguments = {"-s", mRig.device().line().path(), "-b", "115200"};
        mRig.start(options);
    }

    /// vorlan-qv on the device's line.
    tRun qvCommand(std::vector<std::string> arguments, const std::string& input = "")
    {
        const std::vector<std::string> line{"--port", mBridge.device(), "--timeout", "10000"};
        arguments.insert(arguments.begin(), line.begin(), line.end());
        return runCommand(arguments, input);
    }
    /// How often the system daemon was called so.
    std::size_t calls(const std::string& member, const std::string& arguments)
    {
        return mRig.timeline().count(sim::match::call(member, arguments));
    }

    LineBridge mBridge{mRig.device().line().master()};
};
