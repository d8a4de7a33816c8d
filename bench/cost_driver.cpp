#include "protocol/Wire.h"
#include "qv/Peer.h"
#include "qv/Port.h"
#include "sim/Device.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// The daemon on the simulated device, asked a given number of times or left alone, under whatever tool is to watch it.
// bench/cost compares a long and a short run, so that start and end cancel out.

namespace {

constexpr char kUsage[] = "Usage: cost_driver DAEMON requests REGISTER COUNT [TOOL...]\n"
                          "       cost_driver DAEMON idle SECONDS\n";

void require(bool condition, const std::string& what)
{
    if (!condition)
        throw std::runtime_error(what);
}

/// Register 0 is answered without asking anybody.
void untilServing(qv::Peer& peer)
{
    const auto deadline = qv::Clock::now() + std::chrono::minutes(1);
    while (!peer.sync())
        require(qv::Clock::now() < deadline, "the daemon does not answer");
}

void ask(qv::Peer& peer, unsigned char address, unsigned long count)
{
    const qv::Bytes read{wire::eCmdReadReg, address};
    for (unsigned long i = 0; i < count; ++i)
        require(peer.request(read).done(), "a request was not answered");
    require(peer.counts().repeats == 0, "a request had to be repeated: the count would be wrong");
}

/// The start-update method: the way to an end that needs no signal, which a tool might keep to itself.
void stop(sim::Device& device, qv::Peer& peer)
{
    require(peer.request(qv::Bytes{wire::eCmdCall, wire::eMethodStartUpdate}).done(), "the daemon does not stop");
    const auto end = device.daemon().waitExit(std::chrono::minutes(1));
    require(end == sim::exited(0), "the daemon ended badly: " + (end ? end->text() : "not at all"));
}

/// How often the process's threads were woken so far.
unsigned long wakeUps(pid_t pid)
{
    const std::string key = "voluntary_ctxt_switches:";
    unsigned long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(key))
                sum += std::stoul(line.substr(key.size()));
        }
    }
    return sum;
}

int run(const std::vector<std::string>& arguments)
{
    const std::string& daemon = arguments.at(0);
    const bool idle = arguments.at(1) == "idle";
    sim::Device device;
    sim::Daemon::tOptions options;
    if (!idle)
        options.wrapper.assign(arguments.begin() + 4, arguments.end());
    device.daemon().start(daemon, options);
    qv::Port port = qv::Port::adopt(dup(device.line().master()));
    qv::tPeerOptions patience;
    patience.timeout = std::chrono::seconds(20);
    qv::Peer peer(port, patience);
    untilServing(peer);
    require(device.desktop().waitForService(), "the service object does not appear");
    if (idle) {
        const auto time = std::chrono::seconds(std::stoul(arguments.at(2)));
        std::this_thread::sleep_for(std::chrono::seconds(2)); // until the start has settled
        const unsigned long before = wakeUps(device.daemon().pid());
        std::this_thread::sleep_for(time);
        std::printf("%lu\n", wakeUps(device.daemon().pid()) - before);
    } else {
        ask(peer, static_cast<unsigned char>(std::stoul(arguments.at(2))), std::stoul(arguments.at(3)));
    }
    stop(device, peer);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool known =
        (arguments.size() >= 4 && arguments[1] == "requests") || (arguments.size() == 3 && arguments[1] == "idle");
    if (!known) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        return run(arguments);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cost_driver: %s\n", e.what());
        return 1;
    }
}
