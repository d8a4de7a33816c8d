#include "tests/bus/StderrCapture.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace {

constexpr std::size_t kMaxWrite = 1 << 18;

} // namespace

StderrCapture::StderrCapture()
{
    // a packet for each write
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error("standard error cannot be captured");
    mRead.reset(ends[0]);
    const sim::UniqueFd write(ends[1]);
    mStream.emplace(STDERR_FILENO, write.get());
}

void StderrCapture::drain()
{
    std::string packet(kMaxWrite, '\0');
    for (;;) {
        const ssize_t got = recv(mRead.get(), packet.data(), packet.size(), MSG_DONTWAIT);
        if (got <= 0)
            return;
        mWrites.emplace_back(packet, 0, static_cast<std::size_t>(got));
    }
}

std::string StderrCapture::text()
{
    std::string all;
    for (const std::string& one : writes())
        all += one;
    return all;
}

std::vector<std::string> StderrCapture::writes()
{
    drain();
    return mWrites;
}

void StderrCapture::clear()
{
    drain();
    mWrites.clear();
}

bool StderrCapture::waitFor(const std::string& part, std::size_t times, sim::milliseconds deadline)
{
    const auto end = sim::Clock::now() + deadline;
    while (countOf(text(), part) < times) {
        const auto left = std::chrono::ceil<sim::milliseconds>(end - sim::Clock::now()).count();
        pollfd ready{mRead.get(), POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0)
            return countOf(text(), part) >= times;
    }
    return true;
}

std::size_t countOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}
