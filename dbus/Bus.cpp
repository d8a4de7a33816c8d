#include "dbus/Bus.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

constexpr microseconds kLook{200'000};                      ///< how often a waiting call looks for a stop
constexpr microseconds kGrace{250'000};                     ///< what it is given once there is one
constexpr microseconds kForever = std::chrono::hours(8760); ///< longer time-outs would overflow the clock
constexpr int kMaxStrays = 1000;

/// As a value of a bus address: all but these characters are escaped.
std::string escaped(const char* text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (std::isalnum(byte) != 0 || std::string_view("_-/.").find(*text) != std::string_view::npos)
            out += *text;
        else
            out.append({'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]});
    }
    return out;
}

std::optional<std::string> addressOf(BusE which)
{
    const char* given = secure_getenv(which == BusE::eSystem ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS");
    if (given != nullptr)
        return given;
    if (which == BusE::eSystem)
        return "unix:path=/run/dbus/system_bus_socket";
    const char* folder = secure_getenv("XDG_RUNTIME_DIR");
    if (folder == nullptr)
        return std::nullopt;
    return "unix:path=" + escaped(folder) + "/bus";
}

steady_clock::time_point endOfCall(sd_bus* bus)
{
    std::uint64_t timeOut = 0;
    sd_bus_get_method_call_timeout(bus, &timeOut);
    return steady_clock::now() + std::min(microseconds(std::min<std::uint64_t>(timeOut, INT64_MAX)), kForever);
}

bool answers(sd_bus_message* message, std::uint64_t cookie)
{
    std::uint64_t answered = 0;
    return message != nullptr && sd_bus_message_get_reply_cookie(message, &answered) >= 0 && answered == cookie;
}

/// When a call that waits is given up: at its time-out, or soon after a stop.
class Deadline
{
public:
    Deadline(sd_bus* bus, const tIsStopped& isStopped)
        : mTimeOut(endOfCall(bus))
        , mIsStopped(isStopped)
    {}

    /// To be asked after each turn. 0, or the reason to give up.
    int look()
    {
        const auto now = steady_clock::now();
        if (!mIsStopped || !mIsStopped())
            mStop = kNever;
        else if (mStop == kNever)
            mStop = now + kGrace;
        if (now >= mStop)
            return -ECANCELED;
        return now >= mTimeOut ? -ETIMEDOUT : 0;
    }

    /// How long to wait before the next look.
    microseconds left() const
    {
        const auto end = std::min(mStop, mTimeOut);
        const auto left = std::max(std::chrono::ceil<microseconds>(end - steady_clock::now()), microseconds{0});
        return mIsStopped ? std::min(left, kLook) : left;
    }

private:
    static constexpr auto kNever = steady_clock::time_point::max();

    steady_clock::time_point mTimeOut;
    steady_clock::time_point mStop = kNever; ///< the end that a stop sets
    const tIsStopped& mIsStopped;
};

/// What a bus says while it gets to know the connection. The library asks for two lines, and aborts the process over a
/// bus that says three at once.
class Greeting
{
public:
    explicit Greeting(sd_bus* bus)
        : mBus(bus)
    {}

    /// To be asked before each read.
    bool isTooLong()
    {
        if (mLines >= kLines || sd_bus_is_ready(mBus) > 0)
            return false;
        char said[256]; // as much as the library reads
        const ssize_t size = recv(sd_bus_get_fd(mBus), said, sizeof(said), MSG_PEEK | MSG_DONTWAIT);
        const std::string_view text(said, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        for (std::size_t at = text.find(kEnd); at != std::string_view::npos; at = text.find(kEnd, at + kEnd.size()))
            ++mLines;
        return mLines > kLines;
    }

private:
    static constexpr int kLines = 2;
    static constexpr std::string_view kEnd = "\r\n";

    sd_bus* mBus;
    int mLines = 0;
};

int awaitAnswer(sd_bus* bus, std::uint64_t cookie, const tIsStopped& isStopped, MessagePtr& answer)
{
    Deadline deadline(bus, isStopped);
    Greeting greeting(bus);
    bool connected = false;
    for (int read = 0;;) {
        connected = connected || sd_bus_is_ready(bus) > 0;
        int result = deadline.look(); // also while strangers keep us reading
        if (result >= 0 && read == 0)
            result = sd_bus_wait(bus, static_cast<std::uint64_t>(deadline.left().count()));
        if (!connected && greeting.isTooLong()) {
            sd_bus_close(bus);
            return -EPROTO;
        }
        if (result >= 0 || result == -EINTR) // a signal ends no call
            result = read = adopt(answer, [&](sd_bus_message** m) { return sd_bus_process(bus, m); });
        if (result == -ENOTCONN && connected)
            return -ECONNRESET; // lost while the call waited: what the library's own call says then
        if (result < 0 || answers(answer.get(), cookie))
            return result;
    }
}

} // namespace

int openBus(BusE which, BusPtr& bus)
{
    const std::optional<std::string> address = addressOf(which);
    if (!address)
        return -ENOMEDIUM;
    BusPtr fresh;
    int result = adopt(fresh, [](sd_bus** b) { return sd_bus_new(b); });
    if (result >= 0)
        result = sd_bus_set_address(fresh.get(), address->c_str());
    if (result >= 0)
        result = sd_bus_set_bus_client(fresh.get(), 1);
    if (result >= 0)
        result = sd_bus_set_trusted(fresh.get(), which == BusE::eUser ? 1 : 0); // whom it lets in is of our user
    if (result >= 0)
        result = sd_bus_negotiate_fds(fresh.get(), 0);
    if (result >= 0)
        result = sd_bus_start(fresh.get());
    if (result >= 0)
        bus = std::move(fresh);
    return std::min(result, 0);
}

MessagePtr newCall(sd_bus* bus, const char* destination, const char* path, const char* member)
{
    MessagePtr call;
    if (bus != nullptr)
        adopt(call, [&](sd_bus_message** m) {
            return sd_bus_message_new_method_call(bus, m, destination, path, destination, member);
        });
    return call;
}

int callBus(sd_bus* bus, sd_bus_message* call, const tIsStopped& isStopped, MessagePtr* answer)
{
    if (call == nullptr)
        return -EINVAL;
    std::uint64_t cookie = 0;
    MessagePtr received;
    int result = sd_bus_send(bus, call, &cookie);
    if (result >= 0)
        result = awaitAnswer(bus, cookie, isStopped, received);
    if (result >= 0 && sd_bus_message_is_method_error(received.get(), nullptr) > 0)
        result = -std::max(sd_bus_message_get_errno(received.get()), 1);
    if (answer != nullptr && result >= 0)
        *answer = std::move(received);
    return result;
}

bool readStrays(sd_bus* bus)
{
    constexpr timespec kNow{};
    pollfd socket{sd_bus_get_fd(bus), POLLIN, 0};
    if (socket.fd >= 0 && ppoll(&socket, 1, &kNow, nullptr) == 0) // a look is cheaper than to read nothing
        return true;
    if (sd_bus_is_open(bus) > 0 && sd_bus_is_ready(bus) <= 0) // the bus's greeting is for the first call to read
        return (socket.revents & (POLLHUP | POLLERR)) == 0;
    int strays = 0;
    while (strays < kMaxStrays && sd_bus_process(bus, nullptr) > 0)
        ++strays;
    return strays < kMaxStrays && sd_bus_is_open(bus) > 0;
}
