#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

/// A text that one thread writes while others read it.
class SharedText
{
public:
    explicit SharedText(std::string text = {})
        : mText(std::move(text))
    {}

    std::string get() const
    {
        const std::lock_guard lock(mMutex);
        return mText;
    }

    void set(std::string text)
    {
        const std::lock_guard lock(mMutex);
        mText = std::move(text);
    }

private:
    mutable std::mutex mMutex;
    std::string mText;
};

/// The values that QV reported and the status service publishes. The link controller's side writes them, the service
/// thread reads them; nothing resets them while the process lives.
class VorlanCfg
{
public:
    /// The singleton, created by the first call.
    static std::shared_ptr<VorlanCfg> cfg();

    std::uint8_t QVProtVersion = 0; ///< link controller's thread only
    std::atomic<bool> AnimationEnabled = true;
    SharedText StatusText{"Waiting for configuration..."};
    std::atomic<std::uint32_t> StatusQV = 0; ///< 0 to 255
    SharedText IpAddrQV;
    std::string QVText1; ///< stored only; link controller's thread
    std::string QVText2; ///< stored only; link controller's thread

private:
    static std::shared_ptr<VorlanCfg> smpInstance;
};
