// Requests of every kind, noise and floods on the line for one daemon on private buses. After a warm-up its memory,
// threads and descriptors, and those of the two bus daemons, must stay what they are.
//
//   steady_driver DAEMON REQUESTS NOISE_BYTES ROUNDS MAX_KIB [SEED]
//
// Requests and noise are spread over the rounds. After each one all is measured, and once more after a flood without a
// delimiter: nothing of it may stay in the heap. The warm-up has no flood. MAX_KIB is what each process may grow by
// from the first flood to the last.

#include "tests/process/Rig.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

namespace {

using namespace std::chrono_literals;
using qv::Bytes;
using qv::OutcomeE;
using Random = std::mt19937_64;

constexpr long kUnevenKiB = 40; ///< the heap's free end comes and goes; after a flood it is always given back
constexpr unsigned long kWarmUpRequests = 10'000;
constexpr std::size_t kWarmUpNoise = 1 << 20;
constexpr std::size_t kFlood = 5 << 18; ///< bytes without a delimiter, more than the daemon gathers
constexpr std::size_t kLongestText1 = 300;
constexpr std::size_t kLongestText2 = 600;
constexpr std::size_t kLongestField = 20; ///< of the network settings
constexpr unsigned kInterfaces = 100;     ///< more than the daemon remembers
constexpr unsigned long kForget = 500;    ///< requests after which the timeline is emptied: this process is no subject

void require(bool condition, const std::string& what)
{
    if (!condition)
        throw std::runtime_error(what);
}

struct tUse
{
    long rssKiB = 0;
    long anonymousKiB = 0;
    long threads = 0;
    long descriptors = 0;
};

tUse useOf(pid_t pid)
{
    const std::filesystem::path process = "/proc/" + std::to_string(pid);
    tUse use;
    std::ifstream rollup(process / "smaps_rollup");
    for (std::string word; rollup >> word;) {
        if (word == "Rss:")
            rollup >> use.rssKiB;
        else if (word == "Anonymous:")
            rollup >> use.anonymousKiB;
    }
    require(use.rssKiB > 0, "cannot see the memory of process " + std::to_string(pid));
    const auto entries = [&](const char* folder) {
        return std::distance(std::filesystem::directory_iterator(process / folder), {});
    };
    use.threads = entries("task");
    use.descriptors = entries("fd");
    return use;
}

using Uses = std::array<tUse, 3>; ///< of the daemon, the system bus, the user bus
constexpr const char* kNames[] = {"daemon", "system bus", "user bus"};

Bytes randomBytes(Random& random, std::size_t count, bool withZeros)
{
    Bytes out(count);
    for (auto& byte : out)
        byte = static_cast<std::uint8_t>(withZeros ? random() % 256 : 1 + random() % 255);
    return out;
}

Bytes randomText(Random& random, std::size_t longest)
{
    Bytes out(1 + random() % longest);
    for (auto& byte : out)
        byte = static_cast<std::uint8_t>('!' + random() % 90);
    out.push_back(0);
    return out;
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct tKind
{
    std::string name;
    OutcomeE expected;
    unsigned weight;
    std::function<Bytes(Random&)> message;
};

std::vector<tKind> validKinds()
{
    std::vector<tKind> kinds;
    for (const auto& reg : wire::kReadRegisters) {
        const std::uint8_t address = reg.address;
        kinds.push_back({std::string("read ") + reg.value.name, OutcomeE::eDone, 4U, [address](Random& random) {
                             return rig::readReg(address) +
                                    randomBytes(random, random() % 8 == 0 ? random() % 70 : 0, true);
                         }});
    }
    const auto write = [&](std::uint8_t address, unsigned weight, std::function<Bytes(Random&)> value) {
        kinds.push_back({std::string("write ") + wire::kWriteRegisters[address].value.name, OutcomeE::eDone, weight,
                         [=](Random& random) { return rig::writeReg(address, value(random)); }});
    };
    const auto byte = [](Random& random) { return randomBytes(random, 1, true); };
    write(wire::eRegWrQVProtVersion, 4, byte);
    write(wire::eRegWrQVStatus, 4, [](Random& random) { return Bytes{static_cast<std::uint8_t>(random() % 10)}; });
    write(wire::eRegWrQVIpAddr, 1,
          [](Random& random) { return rig::text("10.0.0." + std::to_string(random() % 250)); });
    write(wire::eRegWrQVText1, 4, [](Random& random) { return randomText(random, kLongestText1); });
    write(wire::eRegWrQVText2, 4, [](Random& random) { return randomText(random, kLongestText2); });
    write(wire::eRegWrTimeZone, 4, [](Random& random) { return randomBytes(random, 4, true); });
    write(wire::eRegWrTimeZoneFlag, 4, byte);

    const auto call = [&](std::uint8_t method, unsigned weight, std::function<Bytes(Random&)> arguments) {
        kinds.push_back({std::string("call ") + wire::kMethods[method].name, OutcomeE::eDone, weight,
                         [=](Random& random) { return rig::call(method, arguments(random)); }});
    };
    const auto nothing = [](Random&) { return Bytes{}; };
    call(wire::eMethodSetTime, 4, [](Random& random) { return randomBytes(random, 8, true); });
    call(wire::eMethodSetCfgStr, 4, [](Random& random) {
        return rig::text(random() % 8 == 0 ? "NoSuchKey" : "SelectedFavoriteWeb") + randomText(random, 400);
    });
    call(wire::eMethodSetCfgLong, 4, [](Random& random) {
        return rig::text(random() % 8 == 0 ? "NoSuchKey" : "Startmode") + randomBytes(random, 4, true);
    });
    call(wire::eMethodApplyConfig, 1, nothing);
    call(wire::eMethodEmuInputEv, 4, nothing);
    call(wire::eMethodSetBrightness, 4, byte);
    call(wire::eMethodSetBrightnessRaw, 4, byte);
    call(wire::eMethodBeepParam, 4, [](Random& random) { return randomBytes(random, 4, true); });
    call(wire::eMethodBeep, 4, nothing);
    call(wire::eMethodClearStartCode, 4, nothing);
    call(wire::eMethodAppTriggeredUpdate, 1, [](Random& random) { return randomText(random, 200); });
    call(wire::eMethodSetNetworkCfg, 1, [](Random& random) {
        Bytes record = rig::text("eth" + std::to_string(random() % kInterfaces)) +
                       rig::text(random() % 2 == 0 ? "DhcpClient" : "static");
        for (int field = 0; field < 5; ++field)
            record = record + randomText(random, kLongestField);
        record.push_back(static_cast<std::uint8_t>(random() % 3));
        for (int server = 0; server < 3; ++server)
            record = record + rig::text("8.8.4." + std::to_string(random() % 250));
        if (random() % 4 == 0)
            record.resize(random() % record.size()); // what is missing is empty
        return record;
    });
    return kinds;
}

std::vector<tKind> refusedKinds()
{
    std::vector<tKind> kinds;
    const auto refused = [&](const char* name, std::function<Bytes(Random&)> message) {
        kinds.push_back({name, OutcomeE::eRefused, 1, std::move(message)});
    };
    const auto number = [](Random& random, unsigned first, unsigned end) {
        return static_cast<std::uint8_t>(first + random() % (end - first));
    };
    refused("an unknown command", [=](Random& random) {
        return Bytes{number(random, 3, 16)} + randomBytes(random, 1 + random() % 100, true);
    });
    refused("a write to an unknown register", [=](Random& random) {
        return rig::writeReg(number(random, 7, 256), randomBytes(random, random() % 100, true));
    });
    refused("an unknown method", [=](Random& random) {
        return rig::call(number(random, 13, 256), randomBytes(random, random() % 100, true));
    });
    refused("a write of a wrong length", [=](Random& random) {
        constexpr std::uint8_t kFixed[] = {wire::eRegWrQVProtVersion, wire::eRegWrQVStatus, wire::eRegWrTimeZone,
                                           wire::eRegWrTimeZoneFlag};
        return rig::writeReg(kFixed[random() % std::size(kFixed)],
                             randomBytes(random, random() % 2 == 0 ? 0 : 5 + random() % 300, true));
    });
    refused("a write of a text without end", [=](Random& random) {
        constexpr std::uint8_t kTexts[] = {wire::eRegWrQVIpAddr, wire::eRegWrQVText1, wire::eRegWrQVText2};
        return rig::writeReg(kTexts[random() % std::size(kTexts)], randomBytes(random, random() % 300, false));
    });
    refused("a call of a wrong length", [=](Random& random) {
        constexpr std::uint8_t kFixed[] = {
            wire::eMethodSetTime,          wire::eMethodEmuInputEv, wire::eMethodSetBrightness, wire::eMethodBeepParam,
            wire::eMethodSetBrightnessRaw, wire::eMethodBeep,       wire::eMethodClearStartCode};
        return rig::call(kFixed[random() % std::size(kFixed)], randomBytes(random, 9 + random() % 300, true));
    });
    refused("a call without its text", [=](Random& random) {
        constexpr std::uint8_t kTexts[] = {wire::eMethodSetCfgStr, wire::eMethodSetCfgLong,
                                           wire::eMethodAppTriggeredUpdate};
        return rig::call(kTexts[random() % std::size(kTexts)], randomBytes(random, random() % 300, false));
    });
    refused("a number that is cut short", [=](Random& random) {
        return rig::call(wire::eMethodSetCfgLong, rig::text("Startmode") + randomBytes(random, random() % 4, true));
    });
    return kinds;
}

class Steady
{
public:
    Steady(const std::string& executable, std::uint64_t seed)
        : mRig(executable)
        , mPeer(mRig.port(), {.timeout = 200ms, .tries = 100})
        , mRandom(seed)
        , mKinds(validKinds())
    {
        for (auto& kind : refusedKinds())
            mKinds.push_back(std::move(kind));
        std::vector<unsigned> weights;
        for (const auto& kind : mKinds)
            weights.push_back(kind.weight);
        mChoice = std::discrete_distribution<std::size_t>(weights.begin(), weights.end());
    }

    void start()
    {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        sim::Daemon::tOptions options;
        // A fast rate: the daemon waits seven characters' time before each read.
        options.arguments = {"-s", mRig.device().line().path(), "-b", "4000000"};
        options.stdoutFd = nowhere;
        mRig.start(options);
        close(nowhere);
        require(mRig.inStep(), "the daemon does not answer");
        require(mRig.playStory(), "the visualisation does not start");
        require(mRig.device().desktop().waitForService(), "the service object does not appear");
    }

    void ask(unsigned long requests)
    {
        for (unsigned long i = 0; i < requests; ++i, ++mAsked) {
            const tKind& kind = mKinds[mChoice(mRandom)];
            const Bytes message = kind.message(mRandom);
            const auto result = mPeer.request(message, true);
            require(result.outcome == kind.expected,
                    kind.name + " ended otherwise than it should: " + rig::hex(message));
            if (mAsked % 100 == 0)
                askOnTheBus();
            if (mAsked % 250 == 0)
                spoilTheStep();
            if (mAsked % kForget == 0)
                mRig.timeline().clear();
        }
    }

    /// The longest of all that the daemon remembers, and as much of it as it remembers: what comes later can only take
    /// its place.
    void fill()
    {
        const auto longest = [](std::size_t size) { return rig::text(std::string(size, 'x')); };
        const auto must = [&](const Bytes& message) {
            require(mPeer.request(message, true).done(), "a request of the longest kind was not accepted");
        };
        must(rig::writeReg(wire::eRegWrQVText1, longest(kLongestText1)));
        must(rig::writeReg(wire::eRegWrQVText2, longest(kLongestText2)));
        for (unsigned i = 0; i < kInterfaces; ++i) {
            Bytes record = rig::text("eth" + std::to_string(i)) + rig::text("DhcpClient");
            for (int field = 0; field < 5; ++field)
                record = record + longest(kLongestField);
            record.push_back(0);
            for (int server = 0; server < 3; ++server)
                record = record + longest(kLongestField);
            must(rig::call(wire::eMethodSetNetworkCfg, record));
        }
    }

    void noise(std::size_t bytes)
    {
        const std::size_t part = bytes / 4;
        pour(part, [](std::uint64_t random) { return static_cast<std::uint8_t>(random); });
        pour(part, [](std::uint64_t random) { return static_cast<std::uint8_t>(1 + random % 255); });
        // short frames
        pour(part, [](std::uint64_t random) { return static_cast<std::uint8_t>(random % 12 == 0 ? 0 : random >> 8); });
        // mostly delimiters
        pour(bytes - 3 * part,
             [](std::uint64_t random) { return static_cast<std::uint8_t>(random % 8 == 0 ? random >> 8 : 0); });
        mNoise += bytes;
        require(serves(), "the daemon does not answer after the noise");
    }

    void flood()
    {
        pour(kFlood, [](std::uint64_t random) { return static_cast<std::uint8_t>(1 + random % 255); });
        require(serves(), "the daemon does not answer after the flood");
    }

    /// What is used once nothing is under way any more: replies and delayed exits have threads of their own, of which
    /// the last ends after four seconds. With no limit to the threads, it waits until their number stays the same.
    Uses measure(long threads = 0)
    {
        const pid_t daemon = mRig.daemon().pid();
        const auto deadline = qv::Clock::now() + 30s;
        auto since = qv::Clock::now();
        long last = 0;
        for (;;) {
            const long now = useOf(daemon).threads;
            if (now != last)
                since = qv::Clock::now();
            last = now;
            if ((threads != 0 && now <= threads) || qv::Clock::now() - since > 6s || qv::Clock::now() > deadline)
                break;
            std::this_thread::sleep_for(50ms);
        }
        return {useOf(daemon), useOf(mRig.device().systemBus().pid()), useOf(mRig.device().userBus().pid())};
    }

    unsigned long asked() const { return mAsked; }
    std::size_t noiseSoFar() const { return mNoise; }
    std::size_t kinds() const { return mKinds.size(); }

    void stop()
    {
        require(mRig.inStep(), "the daemon does not get in step");
        require(mRig.stopByUpdate() == sim::exited(0), "the daemon ended badly");
    }

private:
    void pour(std::size_t bytes, std::uint8_t (*byteOf)(std::uint64_t))
    {
        while (bytes > 0) {
            Bytes block(std::min<std::size_t>(bytes, 1 << 16));
            for (auto& byte : block)
                byte = byteOf(mRandom());
            require(mRig.pour(block), "the daemon takes no bytes any more");
            bytes -= block.size();
        }
    }

    bool serves()
    {
        mPeer.forgetStep();
        return mPeer.request(rig::readReg(wire::eRegRdParamText)).done();
    }

    void askOnTheBus()
    {
        auto& desktop = mRig.device().desktop();
        require(mAsked % 300 == 0   ? desktop.introspect().ok
                : mAsked % 200 == 0 ? !desktop.allProperties().empty()
                                    : desktop.showQmx().ok,
                "the service object does not answer");
    }

    /// Frames that get no reply, an earlier one, or a reset.
    void spoilTheStep()
    {
        const auto number = mPeer.number();
        if (mAsked % 1000 == 0)
            mPeer.sendFrame(number, rig::readReg(200));
        else if (mAsked % 750 == 0)
            mPeer.sendFrame(number, rig::readReg(0), 1);
        else
            mPeer.sendFrame((number + 5) & qv::kNumberMask, rig::readReg(0));
        require(mPeer.sync(), "the daemon does not get in step");
    }

    rig::Rig mRig;
    qv::Peer mPeer;
    Random mRandom;
    std::vector<tKind> mKinds;
    std::discrete_distribution<std::size_t> mChoice;
    unsigned long mAsked = 0;
    std::size_t mNoise = 0;
};

void printRow(const Steady& steady, std::chrono::seconds time, const Uses& uses, const char* remark)
{
    std::printf("%9lu %7.1f %6lld", steady.asked(), static_cast<double>(steady.noiseSoFar()) / 1e6,
                static_cast<long long>(time.count()));
    for (const auto& use : uses)
        std::printf(" | %6ld %6ld %4ld %4ld", use.rssKiB, use.anonymousKiB, use.threads, use.descriptors);
    std::printf("%s\n", remark);
    std::fflush(stdout);
}

/// False, with a line that says so, when something has grown.
bool isFlat(const Uses& first, const Uses& now, long maxGrowthKiB)
{
    bool flat = true;
    for (std::size_t i = 0; i < first.size(); ++i) {
        const auto check = [&](const char* what, long before, long after, long allowed) {
            if (after - before > allowed) {
                std::printf("GROWN: %s: %s from %ld to %ld, %ld more is allowed\n", kNames[i], what, before, after,
                            allowed);
                flat = false;
            }
        };
        check("KiB resident", first[i].rssKiB, now[i].rssKiB, maxGrowthKiB);
        check("threads", first[i].threads, now[i].threads, 0);
        check("descriptors", first[i].descriptors, now[i].descriptors, 0);
    }
    return flat;
}

bool run(const std::string& daemon, unsigned long requests, std::size_t noise, unsigned long rounds, long maxGrowthKiB,
         std::uint64_t seed)
{
    Steady steady(daemon, seed);
    steady.start();
    std::printf("%lu requests of %zu kinds and %.1f MB of noise in %lu rounds, seed %llu\n", requests, steady.kinds(),
                static_cast<double>(noise) / 1e6, rounds, static_cast<unsigned long long>(seed));
    std::printf("%9s %7s %6s", "requests", "MB", "s");
    for (const char* name : kNames)
        std::printf(" | %-10s KiB  thr  fds", name);
    std::printf("\n%9s %7s %6s", "", "noise", "");
    for (std::size_t i = 0; i < std::size(kNames); ++i)
        std::printf(" | %6s %6s %4s %4s", "RSS", "anon.", "", "");
    std::printf("\n");
    const auto start = qv::Clock::now();
    // The heap takes its size when large blocks have come and gone between the small ones.
    const auto warmUp = std::min(kWarmUpRequests, requests / 2);
    steady.fill();
    steady.ask(warmUp - warmUp / 4);
    steady.noise(kWarmUpNoise);
    steady.ask(warmUp / 4);
    steady.noise(kWarmUpNoise);
    const Uses first = steady.measure();
    const auto seconds = [&] { return std::chrono::duration_cast<std::chrono::seconds>(qv::Clock::now() - start); };
    printRow(steady, seconds(), first, "  warmed up");
    bool flat = true;
    const auto check = [&](const Uses& before, long limit, const char* remark) {
        const Uses now = steady.measure(before[0].threads);
        printRow(steady, seconds(), now, remark);
        flat = isFlat(before, now, limit) && flat;
        return now;
    };
    std::optional<Uses> firstFlooded;
    for (unsigned long round = 0; round < rounds; ++round) {
        steady.ask((requests - warmUp) / rounds + (round < (requests - warmUp) % rounds ? 1 : 0));
        steady.noise(noise / rounds);
        check(first, maxGrowthKiB + kUnevenKiB, "");
        steady.flood();
        const Uses flooded = check(first, maxGrowthKiB + kUnevenKiB, "  after a flood without a delimiter");
        if (!firstFlooded)
            firstFlooded = flooded;
        flat = isFlat(*firstFlooded, flooded, maxGrowthKiB) && flat;
    }
    steady.stop();
    std::printf(
        "%s: at most %ld KiB more than after the warm-up and %ld KiB from flood to flood, no thread, no descriptor\n",
        flat ? "flat" : "NOT FLAT", maxGrowthKiB + kUnevenKiB, maxGrowthKiB);
    return flat;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6 && argc != 7) {
        std::fputs("Usage: steady_driver DAEMON REQUESTS NOISE_BYTES ROUNDS MAX_KIB [SEED]\n", stderr);
        return 2;
    }
    try {
        return run(argv[1], std::stoul(argv[2]), std::stoul(argv[3]), std::max(1UL, std::stoul(argv[4])),
                   std::stol(argv[5]), argc == 7 ? std::stoull(argv[6]) : 1)
                   ? 0
                   : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "steady_driver: %s\n", e.what());
        return 1;
    }
}
