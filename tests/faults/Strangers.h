#pragma once

#include "sim/PrivateBus.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace rig {

/// Somebody on a bus whom nobody asked: the user nobody where this process may become it, else this process's own user.
/// It sends to every connection that the process has at the time, the new ones too, and returns when the bus has taken
/// everything.
class Stranger
{
public:
    explicit Stranger(const sim::PrivateBus& bus);

    /// Signals, each with a text of so many bytes.
    void flood(pid_t process, std::size_t count, std::size_t bytes);
    /// Signals, each with so many descriptors.
    void sendDescriptors(pid_t process, std::size_t count, std::size_t each);

private:
    void connect();
    std::vector<std::string> connectionsOf(pid_t process);
    sim::MessagePtr newSignal(const std::string& destination);
    void send(sd_bus_message* message, std::size_t count);
    void waitForBus();

    const sim::PrivateBus& mBusDaemon;
    sim::BusPtr mBus;
};

/// Programs on the user bus that ask for all of the daemon's properties again and again, each one question at a time.
class Pollers
{
public:
    Pollers(const sim::PrivateBus& bus, std::size_t count);
    ~Pollers();

    /// How many questions were answered so far.
    std::size_t answers() const { return mAnswers; }

private:
    void poll(const std::string& address);

    std::atomic<bool> mRunning = true;
    std::atomic<std::size_t> mAnswers = 0;
    std::vector<std::jthread> mThreads;
};

/// In the place of a bus that was stopped: it accepts and says nothing.
class SilentBus
{
public:
    explicit SilentBus(const sim::PrivateBus& bus);

    /// Somebody has connected since the last time; waits until it has.
    bool meetsSomebody();

private:
    sim::UniqueFd mListener;
    std::vector<sim::UniqueFd> mPeers;
};

/// Kilobytes that the process has in memory: "VmRSS", or had at most, "VmHWM".
std::size_t memoryOf(pid_t process, const std::string& what = "VmRSS");

} // namespace rig
