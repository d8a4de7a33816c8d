#include "qv/LineInput.h"

#include <atomic>
#include <cstdio>
#include <iostream>

namespace qv {

namespace {
std::atomic<bool> sInterrupted{false};
}

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
    std::string line;
    if (std::getline(std::cin, line)) {
        return line;
    }
    if (!sInterrupted) {
        return std::nullopt;
    }
    std::clearerr(stdin); // the signal ended the reading; the terminal has dropped what was typed
    std::cin.clear();
    std::cout << '\n';
    return std::string();
}

} // namespace qv
