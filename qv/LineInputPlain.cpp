#include "qv/LineInput.h"

#include <iostream>

namespace qv {

LineInput::LineInput(const CompleteFn&, std::string historyFile)
    : mHistoryFile(std::move(historyFile))
{}

LineInput::~LineInput() = default;

void LineInput::interrupt() noexcept {}

std::optional<std::string> LineInput::next(const std::string& prompt)
{
    std::cout << prompt << std::flush;
    std::string line;
    if (std::getline(std::cin, line)) {
        return line;
    }
    return std::nullopt;
}

} // namespace qv
