#include "tests/bus/BusFault.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdarg>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

namespace {

struct tFault
{
    std::string function;
    int result = 0;
    std::size_t skip = 0;
    std::size_t times = 0;
    std::optional<std::thread::id> thread;
    std::size_t failed = 0;
};

std::mutex sMutex;
tFault sFault;

void* imageOf(const void* address)
{
    Dl_info info{};
    return dladdr(address, &info) == 0 ? nullptr : info.dli_fbase;
}

/// The fault's result, or 0 when the call is to work.
int faultOf(const char* function, const void* caller)
{
    const std::lock_guard lock(sMutex);
    if (sFault.function != function || (sFault.thread && *sFault.thread != std::this_thread::get_id()) ||
        imageOf(caller) != imageOf(&sFault))
        return 0;
    if (sFault.skip > 0) {
        --sFault.skip;
        return 0;
    }
    if (sFault.times == 0)
        return 0;
    --sFault.times;
    ++sFault.failed;
    return sFault.result;
}

template <class Function>
Function* realOne(const char* name)
{
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr)
        throw std::logic_error(std::string("no ") + name);
    return reinterpret_cast<Function*>(found);
}

} // namespace

BusFault::BusFault(std::string function, int result, std::size_t skip, std::size_t times, ThreadE threads)
{
    const std::lock_guard lock(sMutex);
    sFault = {std::move(function), result, skip, times, std::nullopt, 0};
    if (threads == eThisThread)
        sFault.thread = std::this_thread::get_id();
}

BusFault::~BusFault()
{
    const std::lock_guard lock(sMutex);
    sFault = {};
}

std::size_t BusFault::failed() const
{
    const std::lock_guard lock(sMutex);
    return sFault.failed;
}

// The functions that can be failed. Each takes the place of the library's one for the whole executable.

extern "C" {

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** message, const char* destination, const char* path,
                                   const char* interface, const char* member)
{
    static auto* const real = realOne<decltype(sd_bus_message_new_method_call)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(bus, message, destination, path, interface, member);
}

int sd_bus_message_append(sd_bus_message* message, const char* types, ...)
{
    const int fault = faultOf(__func__, __builtin_return_address(0));
    if (fault < 0)
        return fault;
    va_list values;
    va_start(values, types);
    const int result = sd_bus_message_appendv(message, types, values);
    va_end(values);
    return result;
}

int sd_bus_message_open_container(sd_bus_message* message, char type, const char* contents)
{
    static auto* const real = realOne<decltype(sd_bus_message_open_container)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(message, type, contents);
}

int sd_bus_message_close_container(sd_bus_message* message)
{
    static auto* const real = realOne<decltype(sd_bus_message_close_container)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(message);
}

int sd_event_default(sd_event** event)
{
    static auto* const real = realOne<decltype(sd_event_default)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(event);
}

int sd_bus_add_object_vtable(sd_bus* bus, sd_bus_slot** slot, const char* path, const char* interface,
                             const sd_bus_vtable* table, void* data)
{
    static auto* const real = realOne<decltype(sd_bus_add_object_vtable)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(bus, slot, path, interface, table, data);
}

int sd_bus_attach_event(sd_bus* bus, sd_event* event, int priority)
{
    static auto* const real = realOne<decltype(sd_bus_attach_event)>(__func__);
    const int fault = faultOf(__func__, __builtin_return_address(0));
    return fault < 0 ? fault : real(bus, event, priority);
}

} // extern "C"
