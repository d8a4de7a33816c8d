#include "bench/Server.h"

#include "protocol/Wire.h"
#include "qv/Frame.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <stdexcept>

namespace bench {

namespace {

constexpr std::chrono::minutes kPatience{1};
constexpr std::chrono::milliseconds kRepeatAfter{20};
constexpr std::chrono::milliseconds kRepeatWatched{2000}; // under a tool that makes it slow
constexpr std::chrono::milliseconds kQuiet{200};
constexpr unsigned char kFirst[] = {wire::eCmdReadReg, wire::eRegRdConst0};

// Slave 1, function 3: one register from address 0, whose value is 0.
constexpr std::array<unsigned char, 8> kModbusRequest{0x01, 0x03, 0x00, 0x00, 0x00, 0x01, 0x84, 0x0A};
constexpr std::array<unsigned char, 7> kModbusReply{0x01, 0x03, 0x02, 0x00, 0x00, 0xB8, 0x44};

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> out(1);
    for (const char c : text) {
        if (c == ':')
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

void write(int fd, qv::ByteView bytes)
{
    require(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "the line takes nothing");
}

} // namespace

void require(bool condition, const std::string& what)
{
    if (!condition)
        throw std::runtime_error(what);
}

nanoseconds processorTime(pid_t pid)
{
    clockid_t clock = 0;
    timespec time{};
    require(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0, "no clock of the process");
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

Server::Server(sim::Device& device, const std::string& description, unsigned rate)
    : mDevice(device)
    , mProcess(device.timeline(), device.systemBus(), device.userBus())
{
    const auto words = split(description);
    require(words.size() >= 3 && (words[1] == "daemon" || words[1] == "link" || words[1] == "modbus"),
            "not NAME:KIND:PROGRAM: " + description);
    mName = words[0];
    mKind = words[1];
    mProgram = words[2];
    mOptions.arguments.assign(words.begin() + 3, words.end());
    for (const std::string& word : {std::string("-s"), mLine.path(), std::string("-b"), std::to_string(rate)})
        mOptions.arguments.push_back(word);
}

nanoseconds Server::start(const std::vector<std::string>& wrapper)
{
    mOptions.wrapper = wrapper;
    const auto began = sim::Clock::now();
    sendFirst();
    mProcess.start(mProgram, mOptions);
    int repeats = 0;
    // a slave may throw away what waits on the line when it opens it
    for (; isModbus() && !readable(wrapper.empty() ? kRepeatAfter : kRepeatWatched); ++repeats) {
        require(sim::Clock::now() - began < kPatience, mName + " does not answer");
        sendFirst();
    }
    const auto reply = receive();
    const auto time = sim::Clock::now() - began;
    check(reply);
    while (repeats > 0 && readable(kQuiet))
        receive();
    return time;
}

nanoseconds Server::ask(unsigned char address)
{
    const qv::Bytes message{wire::eCmdReadReg, address};
    const auto request = isModbus() ? qv::Bytes(kModbusRequest.begin(), kModbusRequest.end())
                                    : qv::toWire(qv::buildFrame(mNumber, message));
    const auto began = sim::Clock::now();
    write(mLine.master(), request);
    const auto reply = receive();
    const auto time = sim::Clock::now() - began;
    check(reply);
    return time;
}

void Server::stop()
{
    if (isDaemon()) {
        send(qv::Bytes{wire::eCmdCall, wire::eMethodStartUpdate}, 0);
        receive();
    } else {
        mLine.hangUp();
    }
    const auto end = mProcess.waitExit(kPatience);
    require(end == sim::exited(0), mName + " ended badly: " + (end ? end->text() : "not at all") + mProcess.err());
}

void Server::kill()
{
    mProcess.kill();
}

void Server::sendFirst()
{
    if (isModbus())
        write(mLine.master(), kModbusRequest);
    else
        send(kFirst, qv::kResetFlag);
}

bool Server::readable(std::chrono::milliseconds time) const
{
    pollfd poller{mLine.master(), POLLIN, 0};
    return poll(&poller, 1, static_cast<int>(time.count())) > 0;
}

void Server::send(qv::ByteView message, unsigned char flags)
{
    write(mLine.master(), qv::toWire(qv::buildFrame(static_cast<std::uint8_t>(mNumber | flags), message)));
}

qv::Bytes Server::receive()
{
    qv::Bytes out;
    const auto complete = [&] {
        return isModbus() ? out.size() >= kModbusReply.size() : !out.empty() && out.back() == qv::kDelimiter;
    };
    while (!complete()) {
        if (!readable(kPatience))
            throw std::runtime_error(mName + " does not answer: " + mProcess.out() + mProcess.err());
        std::array<unsigned char, 256> chunk{};
        // a first request that was repeated has more than one reply
        const std::size_t wanted = isModbus() ? kModbusReply.size() - out.size() : chunk.size();
        const ssize_t got = read(mLine.master(), chunk.data(), wanted);
        require(got > 0, mName + ": the line is gone");
        out.insert(out.end(), chunk.begin(), chunk.begin() + got);
    }
    return out;
}

void Server::check(const qv::Bytes& reply)
{
    if (isModbus()) {
        require(std::ranges::equal(reply, kModbusReply), mName + " gives a wrong answer");
        return;
    }
    const auto frame = qv::parseWire(qv::ByteView(reply).first(reply.size() - 1));
    const bool right = frame.ok() && !frame.isResetFrame() && frame.number() == qv::nextNumber(mNumber) &&
                       frame.payload.at(0) == wire::eCmdReadReg;
    require(right, mName + " gives a wrong answer");
    mNumber = frame.number();
}

} // namespace bench
