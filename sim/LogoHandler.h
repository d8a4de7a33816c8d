#pragma once

#include "sim/Service.h"

#include <optional>

namespace sim {

/// The logo handler "com.kelvora.logohandler" on the user bus: Start, and a while later the signal Finished.
class LogoHandler : public Service
{
public:
    static constexpr milliseconds kDuration{50};

    LogoHandler(EventLoop& loop, Timeline& timeline, const PrivateBus& bus);
    ~LogoHandler() override;

    /// How long after Start the logos finish by themselves (at first kDuration); nothing: only when finish() is called.
    void setDuration(std::optional<milliseconds> duration);
    /// The boolean of Finished, true at first.
    void setResult(bool result);
    /// Finished carries a text instead of its boolean.
    void setWrongType(bool wrongType);
    /// Sends Finished now, started or not.
    void finish();

private:
    void sendFinished();

    std::optional<milliseconds> mDuration = kDuration;
    bool mResult = true;
    bool mWrongType = false;
};

} // namespace sim
