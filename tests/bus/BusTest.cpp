#include "tests/bus/BusTest.h"

#include "dbus/SDBusClients.h"
#include "sim/MessageText.h"

#include <malloc.h>

#include <cstdlib>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t allocatedFromSanitizer() asm("__sanitizer_get_current_allocated_bytes");
#endif

CallTimeOut::CallTimeOut(const char* time)
{
    setenv("SYSTEMD_BUS_TIMEOUT", time, 1);
}

CallTimeOut::~CallTimeOut()
{
    unsetenv("SYSTEMD_BUS_TIMEOUT");
}

BusTest::BusTest(const char* callTimeOut)
    : mCallTimeOut(callTimeOut)
{
    mDevice.useInThisProcess();
}

BusTest::~BusTest()
{
    SDBusClients::smpInstance.reset();
}

std::vector<std::string> BusTest::calls(std::size_t from)
{
    std::vector<std::string> out;
    for (const sim::tEvent& event : mDevice.timeline().events(from)) {
        if (event.kind != sim::KindE::eCall)
            continue;
        std::string call = event.service + "." + event.member;
        if (!event.signature.empty())
            call += " " + event.signature + " " + event.arguments;
        out.push_back(std::move(call));
    }
    return out;
}

SignalWatch::SignalWatch(const std::string& busAddress)
    : mBus(sim::openBus(busAddress))
{
    if (mBus == nullptr ||
        sd_bus_add_match(mBus.get(), nullptr, "type='signal',path='/com/kelvora/vorlan'", onSignal, this) < 0)
        throw std::runtime_error("signals cannot be watched");
}

int SignalWatch::onSignal(sd_bus_message* message, void* self, sd_bus_error*) noexcept
{
    static_cast<SignalWatch*>(self)->mSeen.push_back(
        {sd_bus_message_get_interface(message), sd_bus_message_get_member(message),
         sd_bus_message_get_signature(message, 1), sim::bodyText(message)});
    return 0;
}

SignalWatch::tSignal SignalWatch::next(sim::milliseconds deadline)
{
    const auto end = sim::Clock::now() + deadline;
    while (mSeen.empty()) {
        if (sd_bus_process(mBus.get(), nullptr) > 0)
            continue;
        const auto left = std::chrono::ceil<std::chrono::microseconds>(end - sim::Clock::now()).count();
        if (left <= 0 || sd_bus_wait(mBus.get(), static_cast<std::uint64_t>(left)) < 0)
            return {};
    }
    tSignal first = mSeen.front();
    mSeen.erase(mSeen.begin());
    return first;
}

std::ostream& operator<<(std::ostream& out, const SignalWatch::tSignal& signal)
{
    return out << signal.interface << '.' << signal.member << ' ' << signal.signature << ' ' << signal.body;
}

std::size_t allocatedBytes()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return allocatedFromSanitizer();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}
