#include "tests/faults/Strangers.h"

#include "sim/Timeline.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace rig {

namespace {

constexpr uid_t kNobody = 65534;
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kName[] = "com.kelvora.vorlan";

/// This thread is another user, to the kernel and so to the bus that it connects to. The call of the C library would
/// change all threads.
class AsNobody
{
public:
    AsNobody() { become(kNobody); }
    ~AsNobody()
    {
        become(0);
        prctl(PR_SET_DUMPABLE, 1);
    }
    AsNobody(const AsNobody&) = delete;
    AsNobody& operator=(const AsNobody&) = delete;

private:
    static void become(uid_t user)
    {
        if (getuid() == 0)
            syscall(SYS_setresuid, -1, user, -1);
    }
};

struct tQuestion
{
    bool asked = false;
    std::atomic<std::size_t>* answers = nullptr;
};

int onAnswer(sd_bus_message* answer, void* data, sd_bus_error*) noexcept
{
    auto& question = *static_cast<tQuestion*>(data);
    question.asked = false;
    if (sd_bus_message_is_method_error(answer, nullptr) <= 0)
        ++*question.answers;
    return 0;
}

} // namespace

Stranger::Stranger(const sim::PrivateBus& bus)
    : mBusDaemon(bus)
{
    chmod(std::filesystem::path(bus.socket()).parent_path().c_str(), 0711); // else nobody else gets at the socket
    connect();
}

void Stranger::connect()
{
    const AsNobody user;
    mBus = sim::openBus(mBusDaemon.address());
    const char* name = nullptr;
    if (!mBus || sd_bus_get_unique_name(mBus.get(), &name) < 0)
        throw std::runtime_error("no stranger on the bus");
}

std::vector<std::string> Stranger::connectionsOf(pid_t process)
{
    if (sd_bus_is_open(mBus.get()) <= 0) // the bus may have had enough of it
        connect();
    std::vector<std::string> out;
    char** raw = nullptr;
    if (sd_bus_list_names(mBus.get(), &raw, nullptr) < 0)
        return out;
    for (char** name = raw; *name != nullptr; free(*name++)) {
        sd_bus_message* answer = nullptr;
        std::uint32_t pid = 0;
        if (**name == ':' && sd_bus_call_method(mBus.get(), kBus, "/org/freedesktop/DBus", kBus,
                                                "GetConnectionUnixProcessID", nullptr, &answer, "s", *name) >= 0)
            sd_bus_message_read(answer, "u", &pid);
        sd_bus_message_unref(answer);
        if (static_cast<pid_t>(pid) == process)
            out.emplace_back(*name);
    }
    free(raw);
    return out;
}

sim::MessagePtr Stranger::newSignal(const std::string& destination)
{
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(mBus.get(), &raw, "/", "com.kelvora.stranger", "Noise") < 0)
        throw std::runtime_error("no message");
    sim::MessagePtr out(raw);
    sd_bus_message_set_destination(raw, destination.c_str());
    return out;
}

void Stranger::send(sd_bus_message* message, std::size_t count)
{
    constexpr std::size_t kBatch = 500; // what is not yet written is kept in this process
    for (std::size_t i = 1; i <= count; ++i)
        if (sd_bus_send(mBus.get(), message, nullptr) < 0 || (i % kBatch == 0 && sd_bus_flush(mBus.get()) < 0))
            return;
    while (sd_bus_process(mBus.get(), nullptr) > 0) { // what the bus says to it
    }
}

void Stranger::waitForBus()
{
    sd_bus_call_method(mBus.get(), kBus, "/org/freedesktop/DBus", kBus, "GetId", nullptr, nullptr, nullptr);
}

void Stranger::flood(pid_t process, std::size_t count, std::size_t bytes)
{
    constexpr std::size_t kRound = 5000;
    const std::string noise(bytes, 'x');
    for (std::size_t sent = 0; sent < count; sent += kRound)
        for (const std::string& connection : connectionsOf(process)) {
            const sim::MessagePtr message = newSignal(connection);
            sd_bus_message_append(message.get(), "s", noise.c_str());
            send(message.get(), std::min(kRound, count - sent));
        }
    waitForBus();
}

void Stranger::sendDescriptors(pid_t process, std::size_t count, std::size_t each)
{
    for (const std::string& connection : connectionsOf(process)) {
        const sim::MessagePtr message = newSignal(connection);
        for (std::size_t i = 0; i < each; ++i)
            sd_bus_message_append(message.get(), "h", STDIN_FILENO);
        send(message.get(), count);
    }
    waitForBus();
}

Pollers::Pollers(const sim::PrivateBus& bus, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        mThreads.emplace_back([this, address = bus.address()] { poll(address); });
}

Pollers::~Pollers()
{
    mRunning = false;
}

void Pollers::poll(const std::string& address)
{
    constexpr std::uint64_t kTurnUs = 50'000;
    const sim::BusPtr bus = sim::openBus(address);
    tQuestion question{false, &mAnswers};
    while (mRunning && bus && sd_bus_is_open(bus.get()) > 0) {
        if (!question.asked)
            question.asked = sd_bus_call_method_async(bus.get(), nullptr, kName, "/com/kelvora/vorlan",
                                                      "org.freedesktop.DBus.Properties", "GetAll", onAnswer, &question,
                                                      "s", kName) >= 0;
        if (sd_bus_process(bus.get(), nullptr) == 0)
            sd_bus_wait(bus.get(), kTurnUs);
    }
}

SilentBus::SilentBus(const sim::PrivateBus& bus)
{
    unlink(bus.socket().c_str());
    mListener = sim::listenAt(bus.socket());
}

bool SilentBus::meetsSomebody()
{
    pollfd poller{mListener.get(), POLLIN, 0};
    if (poll(&poller, 1, static_cast<int>(sim::kDeadline.count())) <= 0)
        return false;
    mPeers.emplace_back(accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    return true;
}

std::size_t memoryOf(pid_t process, const std::string& what)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string word;
    while (status >> word && word != what + ":") {
    }
    std::size_t out = 0;
    status >> out;
    return out;
}

} // namespace rig
