#include "bench/Server.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// The daemon and what it is compared with, each on a line of its own of the simulated device: asked a given number of
// times under whatever tool is to watch, asked in turns by the clock, or left alone. bench/cost and bench/compare run
// it.

namespace {

using bench::nanoseconds;
using bench::require;
using bench::Server;
using Words = std::vector<std::string>;
using Servers = std::vector<std::unique_ptr<Server>>;

constexpr char kUsage[] = "Usage: cost_driver [--broker] COMMAND...\n"
                          "       cost_driver requests SERVER REGISTER COUNT [TOOL...]\n"
                          "       cost_driver idle SERVER SECONDS\n"
                          "       cost_driver round-trips RATE REGISTER COUNT SERVER...\n"
                          "       cost_driver starts COUNT SERVER...\n"
                          "       cost_driver properties COUNT SERVER ECHO\n"
                          "--broker: the buses are run by dbus-broker, else by dbus-daemon\n"
                          "SERVER: NAME:daemon|link|modbus:PROGRAM[:ARGUMENT...]\n";
constexpr unsigned kUsualRate = 115'200;
constexpr unsigned long kTurn = 100; ///< requests that one is asked before the next one's turn comes

bool sBroker = false;

/// The simulated device on the buses that were asked for.
class Device : public sim::Device
{
public:
    Device()
    {
        if (sBroker)
            runBusesAs(sim::BusKindE::eBroker);
    }
};

/// The sum of the numbers behind `key` in a file of /proc.
unsigned long valueOf(const std::filesystem::path& file, const std::string& key)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key))
            return std::stoul(line.substr(key.size()));
    }
    return 0;
}

std::filesystem::path procOf(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

/// How often the process's threads were woken so far.
unsigned long wakeUps(pid_t pid)
{
    unsigned long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator(procOf(pid) / "task"))
        sum += valueOf(task.path() / "status", "voluntary_ctxt_switches:");
    return sum;
}

double micro(nanoseconds time)
{
    return static_cast<double>(time.count()) / 1000;
}

/// The measured times of one contestant: quantiles in microseconds.
struct tTimes
{
    std::vector<nanoseconds> all;
    nanoseconds processor{0};

    void print(const std::string& name)
    {
        std::ranges::sort(all);
        std::printf("%s", name.c_str());
        for (const double part : {0.1, 0.5, 0.99, 0.999}) {
            const auto at = static_cast<std::size_t>(std::floor(part * static_cast<double>(all.size() - 1)));
            std::printf(" %.1f", micro(all[at]));
        }
        std::printf(" %.2f", micro(processor) / static_cast<double>(all.size()));
    }
};

/// Takes `turn` so many times, and notes how long each took and what it cost the process.
template <typename Turn>
void measure(tTimes& times, pid_t pid, unsigned long count, const Turn& turn)
{
    const auto before = bench::processorTime(pid);
    for (unsigned long i = 0; i < count; ++i)
        times.all.push_back(turn());
    times.processor += bench::processorTime(pid) - before;
}

Servers makeServers(sim::Device& device, const Words& descriptions, unsigned rate)
{
    Servers out;
    for (const auto& description : descriptions)
        out.push_back(std::make_unique<Server>(device, description, rate));
    return out;
}

void startSettled(sim::Device& device, Server& server, const Words& wrapper = {})
{
    server.start(wrapper);
    if (server.isDaemon())
        require(device.desktop().waitForService(), "the service object does not appear");
}

void requests(const Words& words)
{
    Device device;
    Server server(device, words.at(0), kUsualRate);
    startSettled(device, server, Words(words.begin() + 3, words.end()));
    const auto address = static_cast<unsigned char>(std::stoul(words.at(1)));
    for (unsigned long left = std::stoul(words.at(2)); left > 0; --left)
        server.ask(address);
    server.stop();
}

void idle(const Words& words)
{
    Device device;
    Server server(device, words.at(0), kUsualRate);
    startSettled(device, server);
    std::this_thread::sleep_for(std::chrono::seconds(2)); // until the start has settled
    const unsigned long before = wakeUps(server.pid());
    std::this_thread::sleep_for(std::chrono::seconds(std::stoul(words.at(1))));
    std::printf("%lu\n", wakeUps(server.pid()) - before);
    server.stop();
}

/// The pause that all who talk as the daemon does make before they read: seven characters of ten bits.
nanoseconds settleTime(const Server& server, unsigned rate)
{
    return server.isModbus() ? nanoseconds(0) : nanoseconds(std::chrono::seconds(1)) * 7 * 10 / rate;
}

/// In turns, so that what else the machine does meets all of them. Prints for each: name, quantiles without the settle
/// pause, processor time of a request, peak memory, private dirty memory (kB).
void roundTrips(const Words& words)
{
    const auto rate = static_cast<unsigned>(std::stoul(words.at(0)));
    const auto address = static_cast<unsigned char>(std::stoul(words.at(1)));
    Device device;
    const auto servers = makeServers(device, Words(words.begin() + 3, words.end()), rate);
    for (const auto& server : servers)
        startSettled(device, *server);
    std::vector<tTimes> times(servers.size());
    for (unsigned long left = std::stoul(words.at(2)); left >= kTurn; left -= kTurn) {
        for (std::size_t i = 0; i < servers.size(); ++i) {
            const auto settle = settleTime(*servers[i], rate);
            measure(times[i], servers[i]->pid(), kTurn, [&] { return servers[i]->ask(address) - settle; });
        }
    }
    for (std::size_t i = 0; i < servers.size(); ++i) {
        const auto proc = procOf(servers[i]->pid());
        times[i].print(servers[i]->name());
        std::printf(" %lu %lu\n", valueOf(proc / "status", "VmHWM:"), valueOf(proc / "smaps_rollup", "Private_Dirty:"));
        servers[i]->kill();
    }
}

/// From exec to the first answer. Prints for each: name, quantiles, processor time.
void starts(const Words& words)
{
    Device device;
    const Words descriptions(words.begin() + 1, words.end());
    std::vector<tTimes> times(descriptions.size());
    for (unsigned long left = std::stoul(words.at(0)); left > 0; --left) {
        const auto servers = makeServers(device, descriptions, kUsualRate);
        for (std::size_t i = 0; i < servers.size(); ++i) {
            times[i].all.push_back(servers[i]->start());
            times[i].processor += bench::processorTime(servers[i]->pid());
            servers[i]->kill();
        }
    }
    for (std::size_t i = 0; i < descriptions.size(); ++i) {
        times[i].print(descriptions[i].substr(0, descriptions[i].find(':')));
        std::printf("\n");
    }
}

struct tProperty
{
    const char* name; ///< of the bus and the interface
    const char* path;
    const char* property = "StatusQV";
};

nanoseconds readProperty(sd_bus* bus, const tProperty& of)
{
    unsigned char value = 0;
    const auto began = sim::Clock::now();
    const int result = sd_bus_get_property_trivial(bus, of.name, of.path, of.name, of.property, nullptr, 'y', &value);
    const auto time = sim::Clock::now() - began;
    require(result >= 0, std::string(of.name) + " does not tell its property");
    return time;
}

/// Reads of a property in turns. Prints for each: name, quantiles, processor time of a read.
void properties(const Words& words)
{
    Device device;
    Server server(device, words.at(1), kUsualRate);
    startSettled(device, server);
    sim::Daemon echo(device.timeline(), device.systemBus(), device.userBus());
    echo.start(words.at(2));
    require(echo.waitForOutput("ready"), "the echo service does not appear");
    const auto bus = sim::openBus(device.userBus().address());
    const tProperty kDaemon{"com.kelvora.vorlan", "/com/kelvora/vorlan"};
    const tProperty kEcho{"com.kelvora.bench.Echo", "/com/kelvora/bench/Echo"};
    tTimes ofDaemon;
    tTimes ofEcho;
    for (unsigned long left = std::stoul(words.at(0)); left >= kTurn; left -= kTurn) {
        measure(ofDaemon, server.pid(), kTurn, [&] { return readProperty(bus.get(), kDaemon); });
        measure(ofEcho, echo.pid(), kTurn, [&] { return readProperty(bus.get(), kEcho); });
    }
    ofDaemon.print(server.name());
    std::printf("\n");
    ofEcho.print("echo");
    std::printf("\n");
    server.stop();
}

struct tCommand
{
    const char* name;
    std::size_t words; ///< at least
    void (*run)(const Words&);
};

constexpr tCommand kCommands[] = {{"requests", 3, requests},
                                  {"idle", 2, idle},
                                  {"round-trips", 4, roundTrips},
                                  {"starts", 2, starts},
                                  {"properties", 3, properties}};

} // namespace

int main(int argc, char** argv)
{
    sBroker = argc > 1 && argv[1] == std::string("--broker");
    argc -= sBroker ? 1 : 0;
    argv += sBroker ? 1 : 0;
    const Words words(argv + std::min(argc, 2), argv + argc);
    const auto* command = std::ranges::find_if(kCommands, [&](const tCommand& known) {
        return argc > 1 && known.name == std::string(argv[1]) && words.size() >= known.words;
    });
    if (command == std::end(kCommands)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        command->run(words);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cost_driver: %s\n", e.what());
        return 1;
    }
}
