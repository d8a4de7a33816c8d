#include "qv/Shell.h"

#include "qv/LineInput.h"
#include "qv/Values.h"
#include "qv/Words.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace qv {

namespace {

using Words = std::vector<std::string>;

std::atomic<Session*> sStopped{nullptr};
struct sigaction sOldInterrupt;

extern "C" void stopSession(int) noexcept
{
    LineInput::interrupt();
    if (auto* session = sStopped.load()) {
        session->stop();
    }
}

const tExtraCommand* findExtra(std::span<const tExtraCommand> extra, const std::string& name)
{
    const auto command = std::ranges::find(extra, name, &tExtraCommand::name);
    return command == extra.end() ? nullptr : &*command;
}

Words valuesOf(wire::ValueE type)
{
    switch (type) {
    case wire::ValueE::eBool:
        return {"true", "false"};
    case wire::ValueE::eDnsMode:
        return {"given", "dhcp", "none"};
    case wire::ValueE::eTime:
        return {"now"};
    default:
        return {};
    }
}

Words registerNames(std::span<const wire::tRegister> table)
{
    Words names;
    for (const auto& reg : table) {
        names.emplace_back(reg.value.name);
    }
    return names;
}

Words methodNames()
{
    Words names;
    for (const auto& method : wire::kMethods) {
        names.emplace_back(method.name);
    }
    return names;
}

/// The arguments that are not given yet as "name=", and after "name=" its values.
Words argumentWords(const wire::tMethod& method, std::span<const std::string> given, const std::string& word)
{
    Words words;
    for (const auto& field : method.args) {
        const auto assignment = std::string(field.name) + "=";
        if (word.starts_with(assignment)) {
            for (const auto& value : valuesOf(field.type)) {
                words.push_back(assignment + value);
            }
        } else if (std::ranges::none_of(given, [&](const auto& w) { return w.starts_with(assignment); })) {
            words.push_back(assignment);
        }
    }
    if (given.size() < method.args.size()) {
        const auto values = valuesOf(method.args[given.size()].type);
        words.insert(words.end(), values.begin(), values.end());
    }
    return words;
}

/// As it has to be typed behind what was typed of it already.
std::string withBackslashes(const std::string& fileName)
{
    std::string typed;
    for (const char c : fileName) {
        typed += (std::string_view(" \t\\'\"").find(c) != std::string_view::npos ? "\\" : "") + std::string(1, c);
    }
    return typed;
}

Words fileWords(const std::string& word)
{
    namespace fs = std::filesystem;
    const auto slash = word.rfind('/');
    const auto folder = slash == std::string::npos ? std::string() : word.substr(0, slash + 1);
    Words words;
    std::error_code error; // nobody could catch an exception here: readline calls this
    std::error_code noFolder;
    for (fs::directory_iterator file(folder.empty() ? "." : folder, error), end; !error && file != end;
         file.increment(error)) {
        words.push_back(folder + withBackslashes(file->path().filename().string()) +
                        (file->is_directory(noFolder) ? "/" : ""));
    }
    std::ranges::sort(words);
    return words;
}

Words commandNames(std::span<const tExtraCommand> extra)
{
    Words names;
    for (const auto& command : Session::commands()) {
        names.emplace_back(command.name);
    }
    for (const auto& command : extra) {
        names.push_back(command.name);
    }
    names.insert(names.end(), {"help", "quit"});
    return names;
}

Words helpTopics(std::span<const tExtraCommand> extra)
{
    auto names = commandNames(extra);
    for (const auto& more :
         {registerNames(wire::kReadRegisters), registerNames(wire::kWriteRegisters), methodNames()}) {
        names.insert(names.end(), more.begin(), more.end());
    }
    return names;
}

/// What may come at a place in a command line.
Words candidates(std::span<const std::string> before, const std::string& word, std::span<const tExtraCommand> extra)
{
    if (before.empty()) {
        return commandNames(extra);
    }
    const auto& command = before[0];
    const auto given = before.subspan(1);
    if (const auto* its = findExtra(extra, command)) {
        return its->complete ? its->complete(given) : Words();
    }
    if (command == "read" || (command == "watch" && given.empty())) {
        return registerNames(wire::kReadRegisters);
    }
    if (command == "watch") {
        return {"--every", "--count"};
    }
    if (command == "ping") {
        return {"--count"};
    }
    if (command == "write" && given.empty()) {
        return registerNames(wire::kWriteRegisters);
    }
    if (command == "write" && given.size() == 1) {
        const auto* reg = findWriteRegister(given[0]);
        return reg != nullptr ? valuesOf(reg->value.type) : Words();
    }
    if (command == "call" && given.empty()) {
        return methodNames();
    }
    if (command == "call" || command == "network") {
        const auto* method = findMethod(command == "call" ? given[0] : "set-network-cfg");
        const auto args = given.subspan(command == "call" ? 1 : 0);
        return method != nullptr ? argumentWords(*method, args, word) : Words();
    }
    if (command == "boot") {
        return fileWords(word);
    }
    if (command == "trace") {
        return {"on", "off"};
    }
    return command == "help" ? helpTopics(extra) : Words();
}

void writeRow(std::ostream& out, const std::string& head, const std::string& text)
{
    constexpr std::size_t kHeadWidth = 40;
    out << "  " << head << std::string(head.size() < kHeadWidth ? kHeadWidth - head.size() : 1, ' ') << text << '\n';
}

std::string headOf(const std::string& name, const std::string& usage)
{
    return usage.empty() ? name : name + " " + usage;
}

void helpAll(std::ostream& out, std::span<const tExtraCommand> extra)
{
    for (const auto& command : Session::commands()) {
        writeRow(out, headOf(command.name, command.usage), command.meaning);
    }
    for (const auto& command : extra) {
        writeRow(out, headOf(command.name, command.usage), command.meaning);
    }
    writeRow(out, "help [NAME]", "this, or more about a command, register or method");
    writeRow(out, "quit", "end (Ctrl-D too)");
}

void helpField(std::ostream& out, const wire::tField& field)
{
    writeRow(out, field.name, std::string(field.meaning) + ": " + typeHint(field.type));
}

bool helpOn(std::ostream& out, const std::string& name, std::span<const tExtraCommand> extra)
{
    bool found = false;
    for (const auto& command : Session::commands()) {
        if (name == command.name) {
            writeRow(out, headOf(command.name, command.usage), command.meaning);
            found = true;
        }
    }
    if (const auto* command = findExtra(extra, name)) {
        writeRow(out, headOf(command->name, command->usage), command->meaning);
        found = true;
    }
    if (const auto* reg = findReadRegister(name)) {
        writeRow(out, std::string("read ") + reg->value.name, reg->value.meaning);
        found = true;
    }
    if (const auto* reg = findWriteRegister(name)) {
        writeRow(out, std::string("write ") + reg->value.name + " VALUE", "");
        helpField(out, reg->value);
        found = true;
    }
    if (const auto* method = findMethod(name)) {
        writeRow(out, usageOf(*method), method->meaning);
        std::ranges::for_each(method->args, [&](const auto& field) { helpField(out, field); });
        found = true;
    }
    return found;
}

int help(Session& session, std::span<const std::string> words, std::span<const tExtraCommand> extra)
{
    if (words.empty()) {
        helpAll(session.out(), extra);
    } else if (!helpOn(session.out(), words[0], extra)) {
        session.err() << "there is no command, register or method '" << words[0] << "'\n";
        return eStatusUsage;
    }
    session.out().flush();
    return eStatusDone;
}

/// Nothing: the prompt ends.
std::optional<int> runTyped(Session& session, const std::string& line, std::span<const tExtraCommand> extra)
{
    Words words;
    try {
        words = splitWords(line);
    } catch (const RequestError& error) {
        session.err() << error.what() << '\n';
        return eStatusUsage;
    }
    if (words.empty()) {
        return eStatusDone;
    }
    const auto rest = std::span<const std::string>(words).subspan(1);
    if (words[0] == "quit" || words[0] == "exit") {
        return std::nullopt;
    }
    if (words[0] == "help" || words[0] == "?") {
        return help(session, rest, extra);
    }
    if (const auto* command = findExtra(extra, words[0])) {
        return command->run(rest);
    }
    return session.run(words);
}

/// The words before the one that is being typed; a quotation mark that is still open gives none.
Words wordsBefore(const std::string& text)
{
    try {
        return splitWords(text);
    } catch (const RequestError&) {
        return {"'"};
    }
}

} // namespace

Words completions(std::span<const std::string> before, const std::string& word, std::span<const tExtraCommand> extra)
{
    auto words = candidates(before, word, extra);
    std::erase_if(words, [&](const auto& candidate) { return !candidate.starts_with(word); });
    return words;
}

std::string defaultHistoryFile()
{
    const auto* home = std::getenv("HOME");
    return home == nullptr || *home == '\0' ? std::string() : std::string(home) + "/.vorlan-qv_history";
}

int runShell(Session& session, const tShellOptions& options)
{
    int status = eStatusDone;
    const auto run = [&](const std::string& line) {
        const auto done = runTyped(session, line, options.extra);
        status = done.value_or(status);
        return done.has_value();
    };
    if (isatty(STDIN_FILENO) == 0) {
        bool goesOn = true;
        for (std::string line; goesOn && std::getline(std::cin, line);) {
            const StopOnSignal stop(session); // between two commands the signal ends the program
            goesOn = run(line) && !session.stopped();
        }
        return session.stopped() ? eStatusNoAnswer : status;
    }
    const StopOnSignal stop(session);
    LineInput input([&](const std::string& before,
                        const std::string& word) { return completions(wordsBefore(before), word, options.extra); },
                    options.historyFile);
    for (;;) {
        const auto line = input.next(options.prompt);
        if (!line) {
            session.out() << '\n';
            return status;
        }
        session.forgetStop(); // the Ctrl-C that cleared a line
        if (!run(*line)) {
            return status;
        }
    }
}

StopOnSignal::StopOnSignal(Session& session)
{
    sStopped = &session;
    struct sigaction action
    {};
    action.sa_handler = stopSession;
    action.sa_flags = SA_RESTART; // a stream whose writing is cut short takes nothing more; waiting ends all the same
    sigaction(SIGINT, &action, &sOldInterrupt);
}

StopOnSignal::~StopOnSignal()
{
    sigaction(SIGINT, &sOldInterrupt, nullptr);
    sStopped = nullptr;
}

} // namespace qv
