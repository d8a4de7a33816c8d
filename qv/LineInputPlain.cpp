#include "qv/LineInput.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>

namespace qv {

namespace {

std::atomic<bool> sInterrupted{false};

/// Waits until there is a line to read; false after a Ctrl-C. The signal is let in only while waiting, so that none is
/// missed.
bool lineIsThere()
{
    sigset_t interrupt;
    sigset_t before;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &before);
    pollfd wait{STDIN_FILENO, POLLIN, 0};
    while (!sInterrupted && ppoll(&wait, 1, nullptr, &before) < 0) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return !sInterrupted;
}

} // namespace

LineInput::LineInput(const CompleteFn&, std::string historyFile)
    : mHistoryFile(std::move(historyFile))
{}

LineInput::~LineInput() = default;

void LineInput::interrupt() noexcept
{
    sInterrupted = true;
}

std::optional<std::string> LineInput::next(const std::string& prompt)
{
    sInterrupted = false;
    std::cout << prompt << std::flush;
    if (!lineIsThere()) {
        tcflush(STDIN_FILENO, TCIFLUSH);
        std::cout << '\n';
        return std::string();
    }
    std::string line;
    if (std::getline(std::cin, line)) {
        return line;
    }
    return std::nullopt;
}

} // namespace qv
