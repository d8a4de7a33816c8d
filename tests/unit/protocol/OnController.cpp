#include "tests/unit/protocol/OnController.h"

#include "dbus/SDBusClients.h"
#include "link/SManager.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace {

using qv::Bytes;

class ScriptedLine : public SerialIf
{
public:
    ScriptedLine(std::function<void()> test, std::function<void(const Bytes&)> onReply)
        : mTest(std::move(test))
        , mOnReply(std::move(onReply))
    {}

    int getBackendType() override { return eBackendSerial; }
    int init(tInitParams*) override { return 0; }
    bool isOpen() const override { return true; }

    int readBlocking(unsigned char* buf, unsigned int, int) override
    {
        mTest();
        sRunning = false;
        const Bytes wire = qv::toWire(qv::buildFrame(qv::kResetFlag, Bytes{0, 0}));
        std::ranges::copy(wire, buf);
        return static_cast<int>(wire.size());
    }

    int writeBlocking(const unsigned char* buf, unsigned int len, int) override
    {
        mOnReply(qv::parseWire({buf, len - 1}).payload);
        return static_cast<int>(len);
    }

private:
    std::function<void()> mTest;
    std::function<void(const Bytes&)> mOnReply;
};

} // namespace

sim::Device& busesOfControllers()
{
    static sim::Device device;
    return device;
}

void onController(const std::function<void(Vorlan&)>& test, std::function<void(const Bytes&)> onReply)
{
    busesOfControllers().useInThisProcess();
    SDBusClients::smpInstance.reset(); // those of an earlier controller are stopped
    sRunning = true;
    Vorlan vorlan;
    SManager::registerSerialBackend(new ScriptedLine([&] { test(vorlan); }, std::move(onReply)));
    vorlan.init();
    vorlan.setSerialCfg("", 115200);
    vorlan.run();
}

std::string controllersLines(const std::string& lines)
{
    std::istringstream in(lines);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("SDBusManager: "))
            out += line + "\n";
    }
    return out;
}
