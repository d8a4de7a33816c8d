// Lets one allocation fail in a daemon that starts and serves one request of each kind: the first, the second, and so
// on to the last. Each round is a child process with the daemon's own code, on a real pty and real private buses; this
// process is its QV. A round must end in one of two ways:
//   recovered   every request was answered rightly, and start-update ended it with status 0
//   ended       the process ended by the exception of the allocation, or of the thread that could not be had, or by a
//               check inside the bus library (which cannot close a connection whose object table it failed to add)
// A right reply carries the value of a daemon that lacks nothing, or, in part, the zeros and empty texts that stand for
// a failed call. Anything else, a hang before all, fails.
//
//   alloc_failure [STEP [FIRST]]    every STEP-th allocation from FIRST on, each by default

#include "FailingAllocator.h"
#include "core/Vorlan.h"
#include "dbus/ParamE.h"
#include "protocol/Wire.h"
#include "qv/Peer.h"
#include "qv/Port.h"
#include "sim/Device.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using qv::Bytes;

constexpr int kEndedByException = 42;
constexpr unsigned int kBaud = 4000000;
constexpr std::chrono::seconds kPatience{10};

enum class EndE
{
    eRecovered,
    eEnded,
    eWrong
};

/// One of each kind: reads, a write with a signal, a write with a call, calls of all shapes, the whole start-up, the
/// end.
const std::vector<Bytes> kRequests = {
    {0, wire::eRegRdConst0},
    {0, wire::eRegRdIpAddr},
    {0, wire::eRegRdParamText},
    {0, wire::eRegRdHundredthsList},
    {0, wire::eRegRdByteList},
    {0, wire::eRegRdParamWordA},
    {1, wire::eRegWrQVProtVersion, 3},
    {1, wire::eRegWrTimeZone, 9, 0, 0, 0},
    {2, wire::eMethodSetCfgStr, 'V', 'i', 's', 'u', 'U', 'R', 'L', 0, 'l', 'o', 'c', 'a', 'l', 'h', 'o', 's', 't', 0},
    {2, wire::eMethodSetCfgLong, 'k', 0, 1, 0, 0, 0},
    {2, wire::eMethodSetTime, 1, 0, 0, 0, 0, 0, 0, 0},
    {2, wire::eMethodBeepParam, 1, 0, 2, 0},
    {1, wire::eRegWrQVIpAddr, '1', '0', '.', '0', '.', '0', '.', '5', 0},
    {1, wire::eRegWrQVStatus, wire::kStatusRunning},
    {2, wire::eMethodApplyConfig},
    {2,   wire::eMethodSetNetworkCfg,
     'e', 0,
     'D', 'h',
     'c', 'p',
     'C', 'l',
     'i', 'e',
     'n', 't',
     0,   0,
     0,   0,
     'h', 0,
     0,   1,
     0,   0,
     0},
    {2, 200},
    {7, 0},
    {2, wire::eMethodStartUpdate},
};

[[noreturn]] void onTerminate()
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        _exit(kEndedByException);
    } catch (const std::system_error&) {
        _exit(kEndedByException); // a thread that could not be had
    } catch (...) {
        _exit(kEndedByException + 1);
    }
}

/// The child: never returns.
[[noreturn]] void beDaemon(const std::string& line, const std::string& log, allocator::tControl& control)
{
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    std::set_terminate(onTerminate);
    allocator::arm(control);
    {
        Vorlan vorlan;
        vorlan.init();
        vorlan.setSerialCfg(line, kBaud);
        vorlan.run();
    }
    _exit(0);
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

class Round
{
public:
    Round(sim::Device& device, allocator::tControl& control, std::uint64_t failAt)
        : mDevice(device)
        , mLog(device.folder() + "/log")
    {
        device.sysd().setParam(eParamStartCode, sim::SysDaemon::Value(std::int32_t{0}));
        tcflush(device.line().master(), TCIOFLUSH);
        control.count = 0;
        control.failAt = failAt;
        mPid = fork();
        if (mPid == 0)
            beDaemon(device.line().slavePath(), mLog, control);
    }

    /// Plays QV and says how the round ended; `replies` are those of a daemon that lacks nothing, or empty to learn
    /// them.
    EndE play(std::vector<Bytes>& replies, std::string& what)
    {
        const bool learning = replies.empty();
        WatchedLine line(dup(mDevice.line().master()), mPid);
        qv::Peer peer(line, {std::chrono::milliseconds(200), 6, 0, 0});
        for (std::size_t i = 0; i < kRequests.size(); ++i) {
            const qv::tResult result = ask(peer, kRequests[i]);
            const bool answered = result.outcome == qv::OutcomeE::eDone || result.outcome == qv::OutcomeE::eRefused;
            if (!answered)
                return unanswered(i, what);
            Bytes reply = result.data;
            reply.insert(reply.begin(), result.done() ? 0 : 1);
            if (learning)
                replies.push_back(reply);
            else if (!isRight(reply, replies[i])) {
                what = "wrong reply to request " + std::to_string(i);
                kill(mPid, SIGKILL);
                reap();
                return EndE::eWrong;
            }
        }
        return ended(what);
    }

private:
    static qv::tResult ask(qv::Peer& peer, const Bytes& request)
    {
        try {
            return peer.request(request, true);
        } catch (const qv::LineError&) {
            return {}; // the daemon is gone
        }
    }

    static bool isRight(const Bytes& reply, const Bytes& full)
    {
        if (reply.empty() || reply.size() > full.size() || reply[0] != full[0])
            return false;
        for (std::size_t i = 1; i + 1 < reply.size(); ++i) {
            if (reply[i] != full[i] && reply[i] != 0)
                return false;
        }
        // a list whose length could not be asked any more ends there; the byte list has its last byte all the same
        return reply.back() == full[reply.size() - 1] || reply.back() == full.back() || reply.back() == 0;
    }

    /// Nothing came back: right when the daemon has ended as described.
    EndE unanswered(std::size_t request, std::string& what)
    {
        const EndE end = ended(what);
        if (end == EndE::eRecovered) {
            what = "no answer to request " + std::to_string(request);
            return EndE::eWrong;
        }
        return end;
    }

    EndE ended(std::string& what)
    {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (!mStatus && std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(mPid, &status, WNOHANG) == mPid)
                mStatus = status;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (!mStatus) {
            what = "hangs";
            kill(mPid, SIGABRT);
            reap();
            return EndE::eWrong;
        }
        if (WIFEXITED(*mStatus) && WEXITSTATUS(*mStatus) == 0)
            return EndE::eRecovered;
        if (WIFEXITED(*mStatus) && WEXITSTATUS(*mStatus) == kEndedByException)
            return EndE::eEnded;
        std::ifstream in(mLog);
        const std::string log{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        if (WIFSIGNALED(*mStatus) && log.find("failed at src/libsystemd/") != std::string::npos)
            return EndE::eEnded;
        what = "ended with status " + std::to_string(*mStatus);
        return EndE::eWrong;
    }

    void reap()
    {
        int status = 0;
        waitpid(mPid, &status, 0);
    }

    sim::Device& mDevice;
    std::string mLog;
    pid_t mPid = -1;
    std::optional<int> mStatus; ///< as waitpid gave it, once the child has ended
};

} // namespace

int main(int argc, char** argv)
{
    const std::uint64_t step = argc > 1 ? std::stoull(argv[1]) : 1;
    auto* shared =
        mmap(nullptr, sizeof(allocator::tControl), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& control = *new (shared) allocator::tControl;
    sim::Device device;
    device.useInThisProcess();

    std::vector<Bytes> replies;
    std::string what;
    if (Round(device, control, 0).play(replies, what) != EndE::eRecovered) {
        std::printf("without a failure: %s\n", what.c_str());
        return 1;
    }
    const std::uint64_t total = control.count;
    std::printf("%llu allocations in a start and %zu requests\n", static_cast<unsigned long long>(total),
                replies.size());

    std::map<EndE, unsigned int> ends;
    for (std::uint64_t failAt = argc > 2 ? std::stoull(argv[2]) : 1; failAt <= total; failAt += step) {
        device.timeline().clear();
        const EndE end = Round(device, control, failAt).play(replies, what);
        ++ends[end];
        if (end == EndE::eWrong)
            std::printf("allocation %llu: %s\n", static_cast<unsigned long long>(failAt), what.c_str());
    }
    std::printf("recovered %u, ended %u, wrong %u\n", ends[EndE::eRecovered], ends[EndE::eEnded], ends[EndE::eWrong]);
    return ends[EndE::eWrong] == 0 ? 0 : 1;
}
