#pragma once

#include "qv/Session.h"

namespace qv {

/// A command that the prompt offers besides those of the session.
struct tExtraCommand
{
    std::string name;
    std::string usage; ///< what follows the name
    std::string meaning;
    std::function<int(std::span<const std::string> words)> run; ///< words after the name; gives a status
    /// What may come after these words (those after the name); may be empty.
    std::function<std::vector<std::string>(std::span<const std::string> words)> complete;
};

struct tShellOptions
{
    std::string prompt = "qv> ";
    std::string historyFile; ///< empty: the history ends with the prompt
    std::vector<tExtraCommand> extra;
};

/// Reads commands from standard input until its end, "quit" or "exit". On a terminal with a prompt, editing, history
/// and completion (where readline was there at build time); otherwise silently, for scripts. Ctrl-C ends the command
/// that runs, or clears the line; a script ends with eStatusNoAnswer. Otherwise gives the status of the last command.
int runShell(Session& session, const tShellOptions& options = {});

/// What may stand for `word` after the words before it on the line, sorted as in the tables.
std::vector<std::string> completions(std::span<const std::string> before, const std::string& word,
                                     std::span<const tExtraCommand> extra = {});

/// Where the history is kept by default; empty without a home folder.
std::string defaultHistoryFile();

/// While it lives, SIGINT stops what the session does. There is at most one.
class StopOnSignal
{
public:
    explicit StopOnSignal(Session& session);
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;
    ~StopOnSignal();
};

} // namespace qv
