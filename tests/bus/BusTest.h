#pragma once

#include "sim/Device.h"
#include "tests/bus/StderrCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

/// The bus library gives up on a call after this time ("1s"), on connections that are opened from now on.
class CallTimeOut
{
public:
    explicit CallTimeOut(const char* time);
    CallTimeOut(const CallTimeOut&) = delete;
    CallTimeOut& operator=(const CallTimeOut&) = delete;
    ~CallTimeOut();
};

/// The daemon's classes in this process, on private buses with all stand-ins; what they write to standard error is
/// captured.
class BusTest : public ::testing::Test
{
protected:
    static constexpr const char* kPatient = "20s";
    static constexpr const char* kHasty = "1s";

    explicit BusTest(const char* callTimeOut = kPatient);
    ~BusTest() override;

    /// What the stand-ins received since the position: "sysd.SetTimeZone ub 3, true".
    std::vector<std::string> calls(std::size_t from = 0);
    std::size_t mark() { return mDevice.timeline().mark(); }

    CallTimeOut mCallTimeOut;
    sim::Device mDevice;
    StderrCapture mStderr;
};

/// The system bus's client with a bus library that gives up soon.
class HastyBusTest : public BusTest
{
protected:
    HastyBusTest()
        : BusTest(kHasty)
    {}
};

/// The signals that the daemon's object sends, as a client of its own sees them. For one thread.
class SignalWatch
{
public:
    struct tSignal
    {
        std::string interface;
        std::string member;
        std::string signature;
        std::string body;

        bool operator==(const tSignal&) const = default;
    };

    explicit SignalWatch(const std::string& busAddress);
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    /// The next signal; without a member when none came before the deadline.
    tSignal next(sim::milliseconds deadline = sim::kDeadline);

private:
    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;

    sim::BusPtr mBus;
    std::vector<tSignal> mSeen;
};

std::ostream& operator<<(std::ostream& out, const SignalWatch::tSignal& signal);

/// Bytes on the heap of this process, stand-ins included.
std::size_t allocatedBytes();
