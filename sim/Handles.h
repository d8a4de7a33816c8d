#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

namespace sim {

/// A file descriptor with an owner.
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : mFd(fd)
    {}
    UniqueFd(UniqueFd&& other) noexcept
        : mFd(other.release())
    {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }
    int release() { return std::exchange(mFd, -1); }
    void reset(int fd = -1)
    {
        if (mFd >= 0)
            ::close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

template <auto kFree>
struct tFree
{
    template <class T>
    void operator()(T* object) const
    {
        kFree(object);
    }
};

using BusPtr = std::unique_ptr<sd_bus, tFree<sd_bus_close_unref>>;
using MessagePtr = std::unique_ptr<sd_bus_message, tFree<sd_bus_message_unref>>;
using SlotPtr = std::unique_ptr<sd_bus_slot, tFree<sd_bus_slot_unref>>;
using EventPtr = std::unique_ptr<sd_event, tFree<sd_event_unref>>;
using EventSourcePtr = std::unique_ptr<sd_event_source, tFree<sd_event_source_disable_unref>>;

/// The error record of one bus call.
class BusError
{
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&mError); }

    sd_bus_error* get() { return &mError; }
    bool isSet() const { return mError.name != nullptr; }
    std::string name() const { return mError.name == nullptr ? "" : mError.name; }
    std::string text() const { return mError.message == nullptr ? "" : mError.message; }

private:
    sd_bus_error mError{nullptr, nullptr, 0};
};

} // namespace sim
