// Lets one allocation fail, or one thread, in a daemon that starts and serves a request of each kind from QV and from
// the desktop: the first, the second, and so on to the last. Each round is a child process with the daemon's own code,
// on a real pty and real private buses; its parent is QV and the desktop. A round must end in one of two ways:
//   recovered   every request was answered rightly, and start-update ended it with status 0
//   ended       the exception of the allocation, or of the thread that could not be had, ended the process with the
//               daemon's own line and status
// A right reply carries the value of a daemon that lacks nothing, or the zero or empty text of a failed call. Nothing
// may take effect on the buses more often than with a daemon that lacks nothing, nor, in a round that recovered, less
// often without a line that says so. Anything else fails: a hang before all, and an end by a signal.
//
//   alloc_failure [STEP [FIRST [WORKERS]]]    every STEP-th from FIRST on, each by default
//
// A round lasts a second at least, which the service object waits before it answers: several workers, each with buses
// and a line of its own, share the rounds.

#include "FailingAllocator.h"
#include "dbus/ParamE.h"
#include "protocol/Wire.h"
#include "qv/Peer.h"
#include "qv/Port.h"
#include "sim/Device.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

int vorlanMain(int argc, char** argv); // the daemon's main by another name

namespace {

using qv::Bytes;

constexpr int kEndedByException = EX_SOFTWARE;
constexpr char kLastLine[] = "vorlan: ended by ";
constexpr std::chrono::seconds kPatience{20};
constexpr std::chrono::seconds kLongEnough{3}; ///< to wait for what a failure may have cut off
constexpr unsigned int kWorkers = 8;

enum class EndE
{
    eRecovered,
    eEnded,
    eWrong
};

struct tRequest
{
    Bytes message;
    std::optional<wire::ValueE> value = std::nullopt; ///< of the register that is read
    bool safeToRepeat = true;
};

tRequest read(std::uint8_t address)
{
    return {{wire::eCmdReadReg, address}, wire::kReadRegisters[address].value.type};
}

tRequest write(std::uint8_t address, std::string_view value)
{
    Bytes message = {wire::eCmdWriteReg, address};
    message.insert(message.end(), value.begin(), value.end());
    return {std::move(message)};
}

tRequest call(std::uint8_t method, std::string_view arguments = {})
{
    Bytes message = {wire::eCmdCall, method};
    message.insert(message.end(), arguments.begin(), arguments.end());
    return {std::move(message), std::nullopt, false};
}

using namespace std::literals;

/// All but what starts the visualisation, up to the last condition for it.
const std::vector<tRequest> kBefore = {
    read(wire::eRegRdConst0),
    read(wire::eRegRdCfgApplied),
    read(wire::eRegRdIpAddr),
    read(wire::eRegRdParamText),
    read(wire::eRegRdHundredthsList),
    read(wire::eRegRdByteList),
    read(wire::eRegRdParamWordA),
    read(wire::eRegRdParamWordB),
    read(wire::eRegRdStartCode),
    read(wire::eRegRdDispBrightnessRaw),
    write(wire::eRegWrQVProtVersion, "\3"sv),
    write(wire::eRegWrQVText1, "a text that is too long to lie inside of its string\0"sv),
    write(wire::eRegWrQVText2, "another text that is too long to lie inside of its string\0"sv),
    write(wire::eRegWrTimeZone, "\11\0\0\0"sv),
    write(wire::eRegWrTimeZoneFlag, "\0"sv),
    call(wire::eMethodSetCfgStr, "VisuURL\0http://localhost/index.html\0"sv),
    call(wire::eMethodSetCfgLong, "Startmode\0\1\0\0\0"sv),
    call(wire::eMethodEmuInputEv),
    call(wire::eMethodSetBrightness, "\120"sv),
    call(wire::eMethodSetBrightnessRaw, "\121"sv),
    call(wire::eMethodBeepParam, "\1\0\2\0"sv),
    call(wire::eMethodBeep),
    call(wire::eMethodClearStartCode),
    call(wire::eMethodAppTriggeredUpdate, "/media/update\0"sv),
    call(wire::eMethodSetTime, "\1\0\0\0\0\0\0\0"sv),
    write(wire::eRegWrQVIpAddr, "10.0.0.5\0"sv),
    write(wire::eRegWrQVStatus, "\4"sv),
};
const tRequest kApplyConfig = call(wire::eMethodApplyConfig);
/// Once the visualisation is there and the desktop has asked; the last one ends the daemon.
const std::vector<tRequest> kAfter = {
    read(wire::eRegRdCfgApplied),
    call(wire::eMethodSetNetworkCfg, "e\0DhcpClient\0\0\0\0h\0\0\1\0\0\0"sv),
    call(200),
    {{7, 0}},
    call(wire::eMethodStartUpdate),
};

/// What the desktop may find instead of the value of a daemon that lacks nothing, each because the system daemon could
/// not be asked.
const std::map<std::string, std::string> kLacking = {
    {"AnimationEnabled", "false"}, {"StatusText", R"("Please check your terminal configuration.")"},
    {"ShowLogos", "false"},        {"GifOffsetX", "0"},
    {"GifOffsetY", "0"},           {"GifDelayMS", "0"},
    {"ShowQVStatus", "false"},
};
/// What ShowQMX calls at the system daemon.
constexpr std::array kQmxCalls = {R"(sysd.SetCfgInt("Startmode", 2))",
                                  R"(sysd.SetCfgString("SelectedFavoriteWeb", "http://10.0.0.5/qmx/index.html"))",
                                  "sysd.LoadConfig()"};

using Counts = std::map<std::string, std::size_t>;

/// What the rounds are compared with: the replies, properties and effects of a daemon that lacks nothing.
struct tFull
{
    std::vector<Bytes> replies;
    std::map<std::string, std::string> properties;
    Counts effects; ///< calls that change something, by their text and by their member
};

/// Lies in memory that all workers share.
struct tShared
{
    std::atomic<std::uint64_t> next{1};
    std::atomic<std::uint64_t> total{0}; ///< allocations and threads of a round without failure
    std::atomic<unsigned int> recovered{0};
    std::atomic<unsigned int> ended{0};
    std::atomic<unsigned int> wrong{0};
    std::atomic<unsigned int> threads{0}; ///< rounds in which a thread failed
};

/// The child: never returns.
[[noreturn]] void beDaemon(const std::string& line, const std::string& log, allocator::tControl& control)
{
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    std::string words[] = {"vorlan", "-s", line, "-b", "4000000"};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(), words[4].data(), nullptr};
    allocator::arm(control);
    _exit(vorlanMain(5, arguments));
}

/// QV's end of the line, which ends with the daemon.
class WatchedLine : public qv::Line
{
public:
    WatchedLine(int fd, pid_t daemon)
        : mPort(qv::Port::adopt(fd))
        , mDaemon(daemon)
    {}

    void write(qv::ByteView bytes) override { mPort.write(bytes); }

    Bytes read(qv::Clock::time_point deadline) override
    {
        for (;;) {
            Bytes bytes = mPort.read(std::min(deadline, qv::Clock::now() + std::chrono::milliseconds(5)));
            if (!bytes.empty() || qv::Clock::now() >= deadline)
                return bytes;
            siginfo_t gone{};
            if (waitid(P_PID, static_cast<id_t>(mDaemon), &gone, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                gone.si_pid == mDaemon)
                throw qv::LineError("the daemon has ended");
        }
    }

private:
    qv::Port mPort;
    pid_t mDaemon;
};

/// Of a register's value: full, or what it is when a call for it failed.
bool isRightValue(wire::ValueE type, const Bytes& value, const Bytes& full)
{
    if (value == full)
        return true;
    const bool isList = type == wire::ValueE::eHundredthsList || type == wire::ValueE::eByteList;
    if (type == wire::ValueE::eText)
        return value == Bytes{0};
    if (!isList)
        return value == Bytes(full.size(), 0);
    // One element reads as zero, or the list ends where its length could not be asked.
    const std::size_t width = type == wire::ValueE::eHundredthsList ? 2 : 1;
    const std::size_t tail = type == wire::ValueE::eByteList ? 1 : 0;
    for (std::size_t i = 0; i + width <= full.size(); i += width) {
        Bytes lacking = full;
        std::fill_n(lacking.begin() + static_cast<std::ptrdiff_t>(i), width, std::uint8_t{0});
        Bytes cut = full;
        cut.erase(cut.begin() + static_cast<std::ptrdiff_t>(i), cut.end() - static_cast<std::ptrdiff_t>(tail));
        if (value == lacking || value == cut)
            return true;
    }
    return false;
}

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

class Round
{
public:
    Round(sim::Device& device, allocator::tControl& control, std::uint64_t failAt)
        : mDevice(device)
        , mLog(device.folder() + "/log")
    {
        resetStores();
        device.timeline().clear();
        tcflush(device.line().master(), TCIOFLUSH);
        control.count = 0;
        control.failAt = failAt;
        control.threadFailed = false;
        mPid = fork();
        if (mPid == 0)
            beDaemon(device.line().slavePath(), mLog, control);
    }

    /// Plays QV and the desktop and says how the round ended; learns `full` when it is empty.
    EndE play(tFull& full, std::string& what)
    {
        const EndE end = converse(full, what);
        if (end == EndE::eWrong && !mStatus) {
            kill(mPid, SIGKILL);
            int status = 0;
            waitpid(mPid, &status, 0);
        }
        settle();
        return end == EndE::eWrong ? end : compareEffects(end, full, what);
    }

private:
    /// What requests of an earlier round have changed.
    void resetStores()
    {
        auto& sysd = mDevice.sysd();
        sysd.setParam(eParamStartCode, sim::SysDaemon::Value(std::int32_t{0}));
        sysd.setParam(eParamTimeZone, sim::SysDaemon::Value(std::int32_t{27}));
        sysd.setParam(eParamTimeZoneFlag, sim::SysDaemon::Value(true));
        sysd.setParam(eParamReg172, sim::SysDaemon::Value(std::int32_t{200}));
        sysd.setCfg("UpdateTrigger", sim::SysDaemon::CfgValue(std::int32_t{1}));
        sysd.setCfg("VisuURL", "http://localhost:8080/index.html");
    }

    EndE converse(tFull& full, std::string& what)
    {
        const bool learning = full.replies.empty();
        WatchedLine line(dup(mDevice.line().master()), mPid);
        qv::Peer peer(line, {std::chrono::milliseconds(200), 50, 0, 0});
        std::vector<Bytes> replies;
        const auto ask = [&](const tRequest& request) {
            const std::size_t i = replies.size();
            const std::size_t mark = mDevice.timeline().mark();
            qv::tResult result = peer.request(request.message, request.safeToRepeat);
            if (result.outcome == qv::OutcomeE::eUnknown) { // the link was begun anew: QV looks what has become of it
                if (mDevice.timeline().count(isEffect, mark) > 0) {
                    replies.push_back(full.replies[i]);
                    return true;
                }
                result = peer.request(request.message, request.safeToRepeat);
            }
            if (result.outcome != qv::OutcomeE::eDone && result.outcome != qv::OutcomeE::eRefused)
                return false;
            Bytes reply = result.data;
            reply.insert(reply.begin(), result.done() ? 0 : 1);
            replies.push_back(reply);
            return learning || isRight(request, reply, full.replies[i]);
        };
        const auto askAll = [&](const std::vector<tRequest>& requests) {
            return std::all_of(requests.begin(), requests.end(), ask);
        };
        const bool answered =
            askAll(kBefore) && ask(kApplyConfig) && awaitVisualisation() && askOnTheBus(full, what) && askAll(kAfter);
        if (learning)
            full.replies = replies;
        if (!what.empty())
            return EndE::eWrong;
        const EndE end = ended(what);
        if (answered || end == EndE::eEnded || !what.empty())
            return what.empty() ? end : EndE::eWrong;
        what = "no answer, or a wrong one, to request " + std::to_string(replies.size());
        return EndE::eWrong;
    }

    static bool isRight(const tRequest& request, const Bytes& reply, const Bytes& full)
    {
        if (!request.value || reply[0] != full[0])
            return reply == full;
        return isRightValue(*request.value, {reply.begin() + 1, reply.end()}, {full.begin() + 1, full.end()});
    }

    /// Until LoadConfig, the last call of the visualisation's; without it when a failure has left a line. False when
    /// the daemon has ended.
    bool awaitVisualisation()
    {
        const auto begin = std::chrono::steady_clock::now();
        const auto waited = [&] { return std::chrono::steady_clock::now() - begin; };
        const sim::milliseconds turn(20);
        while (!mDevice.timeline().waitFor(sim::match::call("LoadConfig"), 0, turn)) {
            if (hasEnded())
                return false;
            if (waited() > kPatience || (waited() > kLongEnough && saysSo()))
                return true;
        }
        return true;
    }

    /// Reads all properties and calls ShowQMX. Without an answer where none can be had; false when one is wrong.
    bool askOnTheBus(tFull& full, std::string& what)
    {
        const bool learning = full.properties.empty();
        auto& desktop = mDevice.desktop();
        if (!desktop.waitForService(kLongEnough)) {
            if (hasEnded() || !learning)
                return true;
            what = "no service object";
            return false;
        }
        const auto properties = desktop.allProperties(kPatience);
        mQmxAnswered = desktop.showQmx(kPatience).ok;
        if (learning)
            full.properties = properties;
        else if (!properties.empty() && !isRight(properties, full.properties))
            what = "wrong properties";
        return what.empty();
    }

    static bool isRight(const std::map<std::string, std::string>& properties,
                        const std::map<std::string, std::string>& full)
    {
        return std::equal(
            properties.begin(), properties.end(), full.begin(), full.end(), [](const auto& now, const auto& then) {
                const auto lacking = kLacking.find(now.first);
                return now == then ||
                       (now.first == then.first && lacking != kLacking.end() && now.second == lacking->second);
            });
    }

    /// What a daemon that is gone has sent has arrived at the stand-ins when this returns.
    void settle()
    {
        for (int turn = 0; turn < 2; ++turn) {
            ping(sd_bus_open_system, mDevice.sysd());
            ping(sd_bus_open_user, mDevice.logo());
            ping(sd_bus_open_user, mDevice.systemd());
        }
    }

    static void ping(int (*open)(sd_bus**), const sim::Service& service)
    {
        sd_bus* bus = nullptr;
        if (open(&bus) >= 0)
            sd_bus_call_method(bus, service.busName().c_str(), "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                               nullptr, nullptr);
        sd_bus_flush_close_unref(bus);
    }

    /// An exit is none: it comes two or four seconds later, when the daemon is still there.
    static bool isEffect(const sim::tEvent& event)
    {
        return event.kind == sim::KindE::eCall && event.service != "idle" && event.member.rfind("Get", 0) != 0 &&
               event.member != "Ready" && event.member != "Ping";
    }

    Counts effects() const
    {
        Counts counts;
        for (const auto& event : mDevice.timeline().events()) {
            if (isEffect(event)) {
                ++counts[event.call()];
                ++counts[event.service + "." + event.member];
            }
        }
        return counts;
    }

    EndE compareEffects(EndE end, tFull& full, std::string& what)
    {
        Counts now = effects();
        if (full.effects.empty())
            full.effects = now;
        for (const auto& [effect, count] : now) {
            const auto known = full.effects.find(effect);
            // other arguments than those of a daemon that lacks nothing: its member must not come more often
            const bool isText = effect.back() == ')';
            if (known == full.effects.end() ? !isText : count > known->second) {
                what = "too often: " + effect;
                return EndE::eWrong;
            }
        }
        if (end != EndE::eRecovered || saysSo())
            return end;
        if (!mQmxAnswered)
            for (const char* effect : kQmxCalls)
                ++now[effect];
        for (const auto& [effect, count] : full.effects) {
            if (effect.back() == ')' && effect.rfind("sysd.", 0) == 0 && now[effect] < count) {
                what = "lost without a line: " + effect;
                return EndE::eWrong;
            }
        }
        return end;
    }

    EndE ended(std::string& what)
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!hasEnded() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!hasEnded()) {
            what += " hangs";
            return EndE::eWrong;
        }
        if (WIFEXITED(*mStatus) && WEXITSTATUS(*mStatus) == 0)
            return EndE::eRecovered;
        if (WIFEXITED(*mStatus) && WEXITSTATUS(*mStatus) == kEndedByException && contains(log(), kLastLine))
            return EndE::eEnded;
        what += " ended with status " + std::to_string(*mStatus);
        return EndE::eWrong;
    }

    bool hasEnded()
    {
        int status = 0;
        if (!mStatus && waitpid(mPid, &status, WNOHANG) == mPid)
            mStatus = status;
        return mStatus.has_value();
    }

    std::string log() const
    {
        std::ifstream in(mLog);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }

    /// A line of the daemon's tells of a failure.
    bool saysSo() const { return contains(log(), "Failed to"); }

    sim::Device& mDevice;
    std::string mLog;
    pid_t mPid = -1;
    std::optional<int> mStatus; ///< as waitpid gave it, once the child has ended
    bool mQmxAnswered = false;
};

/// Plays rounds until there is none left. The exit status of a worker.
int work(tShared& shared, std::uint64_t step)
{
    auto* memory =
        mmap(nullptr, sizeof(allocator::tControl), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& control = *new (memory) allocator::tControl;
    sim::Device device;
    device.useInThisProcess();

    tFull full;
    std::string what;
    if (Round(device, control, 0).play(full, what) != EndE::eRecovered || full.properties.empty()) {
        std::printf("without a failure: %s\n", what.c_str());
        return 1;
    }
    const std::uint64_t total = control.count;
    shared.total = total;
    for (std::uint64_t failAt = shared.next.fetch_add(step); failAt <= total; failAt = shared.next.fetch_add(step)) {
        what.clear();
        const EndE end = Round(device, control, failAt).play(full, what);
        ++(end == EndE::eRecovered ? shared.recovered : end == EndE::eEnded ? shared.ended : shared.wrong);
        shared.threads += control.threadFailed ? 1 : 0;
        if (end == EndE::eWrong)
            std::printf("%s %llu: %s\n", control.threadFailed ? "thread" : "allocation",
                        static_cast<unsigned long long>(failAt), what.c_str());
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::uint64_t step = argc > 1 ? std::stoull(argv[1]) : 1;
    const unsigned long workers = argc > 3 ? std::stoul(argv[3]) : kWorkers;
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    auto* memory = mmap(nullptr, sizeof(tShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& shared = *new (memory) tShared;
    shared.next = argc > 2 ? std::stoull(argv[2]) : 1;
    for (unsigned long i = 0; i < workers; ++i) {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            std::exit(work(shared, step));
        }
    }
    bool allWorked = true;
    for (int status = 0; wait(&status) > 0;)
        allWorked = allWorked && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    std::printf("%llu allocations and threads in a start and %zu requests of QV\n",
                static_cast<unsigned long long>(shared.total.load()), kBefore.size() + 1 + kAfter.size());
    std::printf("recovered %u, ended %u, wrong %u; a thread failed in %u of them\n", shared.recovered.load(),
                shared.ended.load(), shared.wrong.load(), shared.threads.load());
    return allWorked && shared.wrong == 0 && shared.recovered > 0 ? 0 : 1;
}
