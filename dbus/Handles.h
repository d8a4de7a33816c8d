#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <memory>

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

/// A file descriptor, closed with its owner; a negative one is none.
class UniqueFd
{
public:
    explicit UniqueFd(int fd)
        : mFd(fd)
    {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd()
    {
        if (mFd >= 0)
            close(mFd);
    }

    int get() const { return mFd; }

private:
    int mFd;
};
