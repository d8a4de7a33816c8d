#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qv {

/// Lines typed at a terminal. Two implementations: with readline and without.
class LineInput
{
public:
    /// What may stand for the word that ends the line: given the text before the word, and the word.
    using CompleteFn = std::function<std::vector<std::string>(const std::string& before, const std::string& word)>;

    LineInput(const CompleteFn& complete, std::string historyFile);
    LineInput(const LineInput&) = delete;
    LineInput& operator=(const LineInput&) = delete;
    ~LineInput();

    /// Nothing at the end of the input. A line that Ctrl-C cleared comes back empty.
    std::optional<std::string> next(const std::string& prompt);

    /// Clears the line that is being typed. For a signal handler.
    static void interrupt() noexcept;

private:
    std::string mHistoryFile;
};

} // namespace qv
