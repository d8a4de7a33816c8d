#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <memory>
#include <utility>

// Owners of the C handles of libsystemd and of file descriptors.

struct tBusCloser
{
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct tMessageUnref
{
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct tEventUnref
{
    void operator()(sd_event* event) const { sd_event_unref(event); }
};

using BusPtr = std::unique_ptr<sd_bus, tBusCloser>;
using MessagePtr = std::unique_ptr<sd_bus_message, tMessageUnref>;
using EventPtr = std::unique_ptr<sd_event, tEventUnref>;

/// Calls a libsystemd function that fills in a new handle and takes it over. Returns the function's result.
template <typename Owner, typename Create>
int adopt(Owner& owner, Create create)
{
    typename Owner::pointer handle = nullptr;
    const int result = create(&handle);
    owner.reset(handle);
    return result;
}

/// The error record of a call.
class BusError
{
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&mError); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* get() { return &mError; }

private:
    sd_bus_error mError{};
};

/// A file descriptor, closed with its owner; -1 is none.
class UniqueFd
{
public:
    explicit UniqueFd(int fd = -1)
        : mFd(fd)
    {}
    ~UniqueFd()
    {
        if (mFd != -1)
            close(mFd);
    }
    UniqueFd(UniqueFd&& other) noexcept
        : mFd(std::exchange(other.mFd, -1))
    {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(mFd, other.mFd);
        return *this;
    }

    int get() const { return mFd; }

private:
    int mFd;
};
