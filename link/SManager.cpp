#include "link/SManager.h"

#include "os/Log.h"

#include <exception>
#include <mutex>

namespace {

std::mutex sInstanceMutex;

// The terminal's and QV's side each name their region twice, for reading and for writing.
constexpr char kShmTerminal[] = "ShmVorlanTerminal";
constexpr char kShmTerminalCopy[] = "ShmVorlanTerminal";
constexpr char kShmQV[] = "ShmVorlanQV";
constexpr char kShmQVCopy[] = "ShmVorlanQV";

template <typename Word>
Word asWord(const char* text)
{
    return static_cast<Word>(reinterpret_cast<std::uintptr_t>(text));
}

} // namespace

constinit std::shared_ptr<SManager> SManager::smpInstance;
constinit std::unique_ptr<SerialIf> SManager::smpSBackend;

std::shared_ptr<SManager> SManager::mgr()
{
    const std::lock_guard lock(sInstanceMutex);
    if (!smpInstance)
        smpInstance = std::make_shared<SManager>();
    return smpInstance;
}

bool SManager::registerSerialBackend(SerialIf* backend)
{
    smpSBackend.reset(backend);
    return true;
}

SerialIf* SManager::getSerialBackend()
{
    return smpSBackend.get();
}

bool SManager::initBackend()
{
    if (!smpSBackend)
        return false;
    try {
        tInitParams params{};
        if (smpSBackend->getBackendType() == SerialIf::eBackendSerial)
            params = {mDevice.c_str(), mBaudrate, eDataBits8, eParityNone, eStopBits1, eFlowControlNone};
        else if (smpSBackend->getBackendType() == SerialIf::eBackendSharedMemory)
            params = {kShmTerminal,
                      asWord<std::uintptr_t>(kShmTerminalCopy),
                      asWord<DataBitsE>(kShmQV),
                      asWord<ParityE>(kShmQVCopy),
                      StopBitsE{0},
                      FlowControlE{0}};
        else
            return false;
        smpSBackend->init(&params); // refused settings still leave an open port
        return true;
    } catch (const std::exception& e) {
        logErr({"SManager: initBacked: ", e.what()});
        return false;
    }
}
