#include "qv/LineInput.h"

#include <fcntl.h>
#include <poll.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace qv {

namespace {

constexpr int kHistoryMax = 1000;

std::atomic<bool> sInterrupted{false};

/// readline knows no user data.
LineInput::CompleteFn& completeFn()
{
    static LineInput::CompleteFn function;
    return function;
}

std::vector<std::string>& found()
{
    static std::vector<std::string> words;
    return words;
}

extern "C" {

/// Gives the found words one after another; readline frees them.
char* nextFound(const char*, int state) noexcept
{
    static std::size_t next = 0;
    if (state == 0) {
        next = 0;
    }
    return next < found().size() ? strdup(found()[next++].c_str()) : nullptr;
}

char** completeWord(const char* word, int start, int) noexcept
{
    rl_attempted_completion_over = 1; // no file names where none belong
    found() = completeFn()(std::string(rl_line_buffer, static_cast<std::size_t>(start)), word);
    const bool wantsValue = found().size() == 1 && found()[0].ends_with('=');
    rl_completion_append_character = wantsValue ? 0 : 0x20;
    return rl_completion_matches(word, nextFound);
}

/// readline's own reading goes on after a signal. Here Ctrl-C ends the line, and the other signals get their due. The
/// signal is let in only while waiting, so that none is missed.
int nextChar(FILE* stream) noexcept
{
    sigset_t interrupt;
    sigset_t before;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &before);
    pollfd wait{fileno(stream), POLLIN, 0};
    bool interrupted = sInterrupted.exchange(false);
    while (!interrupted && ppoll(&wait, 1, nullptr, &before) < 0) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        rl_check_signals();
        pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
        interrupted = sInterrupted.exchange(false);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (!interrupted) {
        return rl_getc(stream);
    }
    rl_replace_line("", 0);
    return '\n';
}

} // extern "C"

/// The last line at once: the program may end at any time, by a terminal that is closed for instance.
void keep(const std::string& historyFile)
{
    if (historyFile.empty()) {
        return;
    }
    const int fd = open(historyFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd >= 0) { // readline appends only to what is there
        close(fd);
        append_history(1, historyFile.c_str());
    }
}

} // namespace

LineInput::LineInput(const CompleteFn& complete, std::string historyFile)
    : mHistoryFile(std::move(historyFile))
{
    completeFn() = complete;
    rl_readline_name = "vorlan-qv";
    rl_attempted_completion_function = completeWord;
    rl_completer_word_break_characters = const_cast<char*>(" \t");
    rl_getc_function = nextChar;
    rl_variable_bind("show-all-if-ambiguous", "on");
    using_history();
    stifle_history(kHistoryMax);
    if (!mHistoryFile.empty()) {
        read_history(mHistoryFile.c_str());
    }
}

LineInput::~LineInput()
{
    if (!mHistoryFile.empty()) {
        history_truncate_file(mHistoryFile.c_str(), kHistoryMax);
    }
    rl_attempted_completion_function = nullptr;
    rl_getc_function = rl_getc;
    completeFn() = nullptr;
    clear_history();
}

void LineInput::interrupt() noexcept
{
    sInterrupted = true;
}

std::optional<std::string> LineInput::next(const std::string& prompt)
{
    sInterrupted = false;
    const std::unique_ptr<char, decltype(&std::free)> typed(readline(prompt.c_str()), &std::free);
    if (!typed) {
        return std::nullopt;
    }
    std::string line(typed.get());
    const auto* last = history_length > 0 ? history_get(history_base + history_length - 1) : nullptr;
    if (!line.empty() && (last == nullptr || line != last->line)) {
        add_history(line.c_str());
        keep(mHistoryFile);
    }
    return line;
}

} // namespace qv
