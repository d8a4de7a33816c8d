#pragma once

#include "link/SerialIf.h"

#include <memory>
#include <string>

/// The registry that holds the one transport backend and what it is opened with. The backend is registered before
/// main runs; path and rate are set by the link controller before it initialises the link.
class SManager
{
public:
    std::string mDevice;        ///< path of the serial device
    unsigned int mBaudrate = 0; ///< bit/s

    /// The singleton, created by the first call.
    static std::shared_ptr<SManager> mgr();

    /// Takes ownership; a backend registered before is deleted. Always true.
    static bool registerSerialBackend(SerialIf* backend);

    /// The registered backend, owned by the registry; null when there is none.
    static SerialIf* getSerialBackend();

    /// Opens the registered backend. False when it cannot; if it threw, a line on standard error says why.
    bool initBackend();

private:
    static std::shared_ptr<SManager> smpInstance;
    static std::unique_ptr<SerialIf> smpSBackend;
};
