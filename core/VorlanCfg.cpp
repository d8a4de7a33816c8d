#include "core/VorlanCfg.h"

namespace {
std::mutex sInstanceMutex;
}

constinit std::shared_ptr<VorlanCfg> VorlanCfg::smpInstance;

std::shared_ptr<VorlanCfg> VorlanCfg::cfg()
{
    const std::lock_guard lock(sInstanceMutex);
    if (!smpInstance)
        smpInstance = std::make_shared<VorlanCfg>();
    return smpInstance;
}
