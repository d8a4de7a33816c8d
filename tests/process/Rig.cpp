#include "tests/process/Rig.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace rig {

namespace {

#ifdef SYS_poll
constexpr long kPoll = SYS_poll;
#else
constexpr long kPoll = SYS_ppoll; // newer machines have this one only
#endif

constexpr std::uint8_t kTime[] = {0x00, 0xF1, 0x53, 0x65, 0, 0, 0, 0};

qv::tPeerOptions peerOptions()
{
    qv::tPeerOptions options;
    options.timeout = kDeadline;
    options.tries = 2;
    return options;
}

std::filesystem::path taskFolder(pid_t pid)
{
    return "/proc/" + std::to_string(pid) + "/task";
}

/// 0 for a thread that has ended.
std::uint64_t voluntarySwitches(const std::filesystem::path& task)
{
    std::ifstream status(task / "status");
    std::string word;
    while (status >> word && word != "voluntary_ctxt_switches:") {
    }
    std::uint64_t count = 0;
    status >> count;
    return count;
}

} // namespace

const char* const kVorlan = VORLAN_EXECUTABLE;

std::string hex(qv::ByteView bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const std::uint8_t byte : bytes) {
        if (!out.empty())
            out += ' ';
        out += kDigits[byte >> 4U];
        out += kDigits[byte & 0xFU];
    }
    return out;
}

std::string repeated(const std::string& text, std::size_t times)
{
    std::string out;
    for (std::size_t i = 0; i < times; ++i)
        out += text;
    return out;
}

std::size_t countOf(const std::string& text, const std::string& part)
{
    std::size_t out = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++out;
    return out;
}

std::string linesWithout(const std::string& text, const std::string& beginning)
{
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with(beginning))
            out += line + "\n";
    return out;
}

std::string sanitizerReport(const std::string& err)
{
    std::size_t at = std::string::npos;
    for (const char* sign : {"Sanitizer", "runtime error:"})
        at = std::min(at, err.find(sign));
    return at == std::string::npos ? "" : err.substr(at);
}

qv::Bytes text(const std::string& text)
{
    qv::Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

qv::Bytes readReg(std::uint8_t address)
{
    return {wire::eCmdReadReg, address};
}

qv::Bytes writeReg(std::uint8_t address, const qv::Bytes& value)
{
    qv::Bytes out = {wire::eCmdWriteReg, address};
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

qv::Bytes call(std::uint8_t method, const qv::Bytes& arguments)
{
    qv::Bytes out = {wire::eCmdCall, method};
    out.insert(out.end(), arguments.begin(), arguments.end());
    return out;
}

Rig::Rig(std::string executable)
    : mExecutable(std::move(executable))
{
    connect();
}

void Rig::connect()
{
    mPort = std::make_unique<qv::Port>(qv::Port::adopt(fcntl(mDevice.line().master(), F_DUPFD_CLOEXEC, 3)));
    restartPeer();
}

void Rig::hangUp()
{
    mPeer.reset();
    mPort.reset();
    mDevice.line().hangUp();
}

void Rig::restartPeer()
{
    mPeer = std::make_unique<qv::Peer>(*mPort, peerOptions());
}

void Rig::start(const sim::Daemon::tOptions& options)
{
    daemon().start(mExecutable, options);
}

bool Rig::serve(const sim::Daemon::tOptions& options)
{
    start(options);
    return mPeer->sync();
}

bool Rig::inStep(milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    mPeer->setTimeout(milliseconds{200});
    bool ok = mPeer->sync();
    while (!ok && Clock::now() < end)
        ok = mPeer->sync();
    mPeer->setTimeout(kDeadline);
    return ok;
}

std::string Rig::ask(const qv::Bytes& message)
{
    const qv::tResult result = mPeer->request(message, true);
    if (result.outcome != qv::OutcomeE::eDone && result.outcome != qv::OutcomeE::eRefused)
        return "none";
    const bool refused = result.outcome == qv::OutcomeE::eRefused;
    qv::Bytes reply = {static_cast<std::uint8_t>((message[0] & wire::kCommandMask) | (refused ? wire::kErrorBit : 0))};
    reply.insert(reply.end(), result.data.begin(), result.data.end());
    return hex(reply);
}

bool Rig::serves(milliseconds deadline)
{
    const auto end = Clock::now() + deadline;
    bool ok = false;
    do {
        // a frame of an earlier attempt may still put the daemon out of step
        ok = inStep(std::chrono::ceil<milliseconds>(end - Clock::now()));
        mPeer->setTimeout(milliseconds{1000});
        ok = ok && ask(readReg(wire::eRegRdConst0)) == "00 00" &&
             ask(readReg(wire::eRegRdParamText)) == "00 31 2e 34 2e 32 00";
        mPeer->setTimeout(kDeadline);
    } while (!ok && Clock::now() < end);
    return ok;
}

bool Rig::pour(qv::ByteView bytes)
{
    qv::Bytes dropped(4096);
    while (!bytes.empty()) {
        pollfd line{mPort->fd(), POLLIN | POLLOUT, 0};
        if (poll(&line, 1, static_cast<int>(kDeadline.count())) <= 0)
            return false;
        if ((line.revents & POLLIN) != 0 && read(mPort->fd(), dropped.data(), dropped.size()) < 0)
            return false;
        if ((line.revents & POLLOUT) == 0)
            continue;
        const ssize_t count = write(mPort->fd(), bytes.data(), bytes.size());
        if (count > 0)
            bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

qv::Bytes Rig::receive(std::size_t delimiters, milliseconds deadline)
{
    const auto end = qv::Clock::now() + deadline;
    qv::Bytes out;
    while (static_cast<std::size_t>(std::ranges::count(out, qv::kDelimiter)) < delimiters) {
        const qv::Bytes bytes = mPort->read(end);
        if (bytes.empty())
            break;
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return out;
}

qv::Bytes Rig::leftovers()
{
    qv::Bytes out;
    for (;;) {
        const qv::Bytes bytes = mPort->read(qv::Clock::now());
        if (bytes.empty())
            return out;
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
}

bool Rig::tellConditions()
{
    const qv::Bytes time(std::begin(kTime), std::end(kTime));
    for (const qv::Bytes& message :
         {writeReg(wire::eRegWrQVProtVersion, {7}), call(wire::eMethodSetTime, time),
          writeReg(wire::eRegWrQVStatus, {wire::kStatusRunning}), writeReg(wire::eRegWrQVIpAddr, text("10.0.0.5"))})
        if (ask(message) == "none")
            return false;
    return true;
}

bool Rig::tellStory()
{
    return tellConditions() && ask(call(wire::eMethodApplyConfig)) != "none";
}

bool Rig::playStory()
{
    const std::size_t from = timeline().mark();
    return tellStory() && timeline().waitFor(sim::match::call("LoadConfig"), from);
}

bool Rig::waitsForRequest()
{
    const std::string self = std::to_string(daemon().pid());
    const std::string path = "/proc/" + self + "/task/" + self + "/syscall";
    const auto end = Clock::now() + kDeadline;
    // its main thread calls poll() for the line alone; the bus library calls ppoll()
    for (long number = -1; number != kPoll; std::ifstream(path) >> number)
        if (daemon().waitExit(milliseconds{1}) || Clock::now() > end)
            return false;
    return true;
}

std::optional<sim::tExit> Rig::stop(milliseconds deadline)
{
    if (!waitsForRequest())
        return std::nullopt;
    daemon().signal(SIGTERM);
    mPeer->sync();
    return daemon().waitExit(deadline);
}

std::optional<sim::tExit> Rig::stopByUpdate(milliseconds deadline)
{
    if (ask(call(wire::eMethodStartUpdate)) != "02")
        return std::nullopt;
    return daemon().waitExit(deadline);
}

std::uint64_t Rig::wakeUps()
{
    std::uint64_t out = 0;
    for (const auto& task : std::filesystem::directory_iterator(taskFolder(daemon().pid())))
        out += voluntarySwitches(task.path());
    return out;
}

std::uint64_t Rig::processorTime()
{
    std::ifstream stat("/proc/" + std::to_string(daemon().pid()) + "/stat");
    std::string word;
    for (int field = 1; field <= 13; ++field)
        stat >> word; // none of the daemon's names holds a blank
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    stat >> user >> system;
    return user + system;
}

bool Rig::readTimesOut()
{
    constexpr milliseconds kPause{20};
    const std::filesystem::path mainThread = taskFolder(daemon().pid()) / std::to_string(daemon().pid());
    // what has just come costs up to two waits, and what follows them is the time-out
    const std::uint64_t wanted = voluntarySwitches(mainThread) + 4;
    const auto end = Clock::now() + kDeadline;
    while (voluntarySwitches(mainThread) < wanted)
        if (daemon().waitExit(kPause) || Clock::now() > end)
            return false;
    return true;
}

} // namespace rig
