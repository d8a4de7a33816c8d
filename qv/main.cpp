#include "qv/BadLine.h"
#include "qv/List.h"
#include "qv/Port.h"
#include "qv/Session.h"
#include "qv/Shell.h"
#include "qv/Values.h"

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <span>

namespace {

constexpr auto kMost = std::numeric_limits<unsigned>::max();
constexpr const char* kVersion = "vorlan-qv " VORLAN_VERSION;

constexpr const char* kFooter = R"(
Examples
  vorlan-qv --port /dev/ttyUSB0 read brightness-raw        how bright is the display?
  vorlan-qv --port /dev/ttyUSB0 write qv-ip-addr 10.0.0.5  tell the device QV's address
  vorlan-qv --port /dev/ttyUSB0 call set-brightness 80     make it brighter
  vorlan-qv --port /dev/ttyUSB0 boot boot.example          play QV's start-up
  vorlan-qv --port /dev/ttyUSB0 shell                      try things by hand
  vorlan-qv list                                           every register and method
  vorlan-qv --port /dev/ttyUSB0 --trace ping --count 1     nothing answers? see what is sent and what comes back

Exit status: 0 done, 1 refused by the device, 2 usage, 3 no usable answer (or no line, interrupted, the outcome is
unknown, or the results could not be written).)";

/// CLI11 takes "-5" for an option. Negative numbers, and what follows "--", are marked before it sees them, and
/// unmarked after.
constexpr char kNoOptionMark = '\x01';

constexpr const char* kBaudVariable = "VORLAN_QV_BAUD";

struct tArguments
{
    std::string port;
    unsigned baud = 115200;
    unsigned timeout = 500;
    unsigned tries = 5;
    qv::tSessionOptions session;
    bool trace = false;
    qv::tBadLineOptions bad;
    unsigned delay = 0;

    std::vector<std::string> words; ///< of read and call
    std::string name;
    std::string value;
    std::string file;
    unsigned every = 1000;
    unsigned count = 0;
    unsigned pings = 100;
    std::map<std::string, std::string> network;
};

std::string unmarked(std::string text)
{
    if (!text.empty() && text[0] == kNoOptionMark) {
        text.erase(0, 1);
    }
    return text;
}

bool isNegativeNumber(const std::string& arg)
{
    return arg.size() > 1 && arg[0] == '-' && (std::isdigit(static_cast<unsigned char>(arg[1])) != 0 || arg[1] == '.');
}

std::vector<std::string> markNoOptions(int argc, char** argv)
{
    std::vector<std::string> args;
    bool noOptions = false;
    for (const std::string arg : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
        if (arg == "--" && !noOptions) {
            noOptions = true;
        } else {
            const bool marked =
                isNegativeNumber(arg) || (noOptions && arg.starts_with('-')) || arg.starts_with(kNoOptionMark);
            args.push_back((marked ? std::string(1, kNoOptionMark) : "") + arg);
        }
    }
    std::ranges::reverse(args); // as CLI11 wants them
    return args;
}

/// Makes a rate decimal, for CLI11 would take one that begins with 0 for octal. Gives what is wrong with it; empty for
/// a good one.
std::string checkRate(std::string& text)
{
    try {
        const auto baud = qv::parseNumber(unmarked(text), 0, std::numeric_limits<std::int32_t>::max());
        if (qv::Port::isKnownRate(static_cast<unsigned>(baud))) {
            text = std::to_string(baud);
            return {};
        }
    } catch (const qv::ValueError&) {
        return "'" + text + "' is no rate";
    }
    return "no such rate; there are " + qv::Port::knownRates();
}

/// As CLI::Range, which lets "nan" pass.
std::string checkProbability(const std::string& text)
{
    double value = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool good = error == std::errc() && end == text.data() + text.size() && value >= 0 && value <= 1;
    return good ? "" : "'" + text + "' is no probability: 0 to 1";
}

/// A whole number as everywhere else in this program, in any base; made decimal as by checkRate.
CLI::Validator wholeNumber(std::int64_t min, std::int64_t max)
{
    return {[=](std::string& text) -> std::string {
                try {
                    text = std::to_string(qv::parseNumber(unmarked(text), min, max));
                    return {};
                } catch (const qv::ValueError& error) {
                    return error.what();
                }
            },
            std::to_string(min) + " to " + std::to_string(max)};
}

void addLineOptions(CLI::App& app, tArguments& arguments)
{
    app.add_option("-p,--port", arguments.port, "serial port to the device, for instance /dev/ttyUSB0")
        ->envname("VORLAN_QV_PORT")
        ->type_name("DEV");
    app.add_option("-b,--baud", arguments.baud,
                   "rate of the line in bit/s; may come from " + std::string(kBaudVariable))
        ->type_name("N")
        ->capture_default_str()
        ->transform(CLI::Validator(checkRate, ""));
    app.add_option("--timeout", arguments.timeout, "how long one try waits for its answer, in ms")
        ->type_name("MS")
        ->capture_default_str()
        ->transform(wholeNumber(1, 600000));
    app.add_option("--tries", arguments.tries, "how often a request is sent at most")
        ->type_name("N")
        ->capture_default_str()
        ->transform(wholeNumber(1, 1000));
}

void addOutputOptions(CLI::App& app, tArguments& arguments)
{
    app.add_flag("-j,--json", arguments.session.json, "results as JSON, one object in a line");
    app.add_flag("-t,--trace", arguments.trace, "show each frame, field by field, on standard error");
    app.add_flag("-q,--quiet", arguments.session.quiet, "only values and errors");
}

void addBadLineOptions(CLI::App& app, tArguments& arguments)
{
    const std::string group = "A bad line on purpose, in both directions";
    const auto probability = [&](const char* name, double& target, const char* text) {
        app.add_option(name, target, text)->type_name("P")->check(checkProbability)->group(group);
    };
    probability("--lose", arguments.bad.lose, "probability that a frame is lost, 0 to 1");
    probability("--corrupt", arguments.bad.corrupt, "probability that one byte of a frame is changed");
    probability("--stray", arguments.bad.stray, "probability that a stray byte comes before a frame");
    app.add_flag("--split", arguments.bad.split, "each frame comes in two pieces")->group(group);
    app.add_option("--delay", arguments.delay, "each frame comes late by up to this, in ms")
        ->type_name("MS")
        ->transform(wholeNumber(0, 60000))
        ->group(group);
    app.add_option("--burst", arguments.bad.burst, "a loss or corruption goes on for so many frames")
        ->type_name("N")
        ->capture_default_str()
        ->transform(wholeNumber(1, kMost))
        ->group(group);
    app.add_option("--seed", arguments.bad.seed, "the same seed does the same again")
        ->type_name("N")
        ->capture_default_str()
        ->transform(wholeNumber(0, std::numeric_limits<std::int64_t>::max()))
        ->group(group);
}

void addNetworkOptions(CLI::App& command, tArguments& arguments)
{
    const auto* method = qv::findMethod("set-network-cfg");
    for (const auto& field : method->args) {
        const std::string preset = qv::defaultOf(*method, field);
        command
            .add_option("--" + std::string(field.name), arguments.network[field.name],
                        std::string(field.meaning) +
                            (field.type == wire::ValueE::eDnsMode ? ": given, dhcp or none" : "") +
                            (preset.empty() ? " (default: empty)" : " (default: " + preset + ")"))
            ->type_name(qv::typeName(field.type));
    }
    command.add_option("--file", arguments.file, "take the fields from a file with lines name = value; options win")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
}

const char* nameOf(const wire::tRegister& reg)
{
    return reg.value.name;
}
const char* nameOf(const wire::tMethod& method)
{
    return method.name;
}

template <class Entry>
std::string namesOf(std::span<const Entry> table)
{
    std::string names;
    for (const auto& entry : table) {
        names += (names.empty() ? "" : ", ") + std::string(nameOf(entry));
    }
    return names;
}

void addCommands(CLI::App& app, tArguments& arguments)
{
    const std::string bytes = "of an unknown number, bytes with commas (1,0x22)";
    auto* read = app.add_subcommand("read", "read registers");
    read->footer("\nRegisters: " + namesOf<wire::tRegister>(wire::kReadRegisters));
    read->add_option("NAME", arguments.words, "names or numbers of registers")->required();
    auto* write = app.add_subcommand("write", "write a register");
    write->footer("\nRegisters: " + namesOf<wire::tRegister>(wire::kWriteRegisters));
    write->add_option("NAME", arguments.name, "name or number of the register")->required();
    write->add_option("VALUE", arguments.value, "the value, as 'list' says; " + bytes)->required();
    auto* call = app.add_subcommand("call", "call a method");
    call->footer("\nMethods: " + namesOf<wire::tMethod>(wire::kMethods));
    call->add_option("NAME", arguments.name, "name or number of the method")->required();
    call->add_option("ARGUMENT", arguments.words,
                     "arguments in their order, or as name=value; " + bytes + "; what begins with - goes behind --");
    addNetworkOptions(*app.add_subcommand("network", "set up a network interface (method set-network-cfg)"), arguments);
    auto* boot = app.add_subcommand("boot", "play a start-up from a file of commands");
    boot->add_option("FILE", arguments.file, "commands as in the shell, one in a line")->required();
    app.add_subcommand("shell", "a prompt with history and completion");
    app.add_subcommand("list", "all registers and methods with types, units and meaning (needs no port)");
    auto* watch = app.add_subcommand("watch", "read a register again and again, show each change");
    watch->add_option("NAME", arguments.name, "name or number of the register")->required();
    watch->add_option("--every", arguments.every, "time between two readings, in ms")
        ->type_name("MS")
        ->capture_default_str()
        ->transform(wholeNumber(0, std::numeric_limits<int>::max()));
    watch->add_option("--count", arguments.count, "end after so many readings (0: Ctrl-C ends it)")
        ->type_name("N")
        ->capture_default_str()
        ->transform(wholeNumber(0, kMost));
    auto* ping = app.add_subcommand("ping", "measure round trips of a harmless read");
    ping->add_option("--count", arguments.pings, "how many")
        ->type_name("N")
        ->capture_default_str()
        ->transform(wholeNumber(1, kMost));
    for (auto* command : app.get_subcommands({})) {
        const auto own = command->get_footer();
        command->footer((own.empty() ? "" : own + "\n") + "For --port and the other options see: vorlan-qv --help");
    }
}

/// The arguments of set-network-cfg as name=value, those of the file first.
std::vector<std::string> networkWords(const CLI::App& command, const tArguments& arguments)
{
    std::vector<std::string> words;
    if (!arguments.file.empty()) {
        words.push_back("@" + unmarked(arguments.file));
    }
    for (const auto& [name, value] : arguments.network) {
        if (command.count("--" + name) != 0) {
            words.push_back(name + "=" + unmarked(value));
        }
    }
    return words;
}

std::vector<std::string> commandWords(const CLI::App& command, const tArguments& arguments)
{
    const auto& name = command.get_name();
    std::vector<std::string> words{name};
    if (name == "network") {
        const auto network = networkWords(command, arguments);
        words.insert(words.end(), network.begin(), network.end());
    } else if (name == "boot") {
        words.push_back(unmarked(arguments.file));
    } else if (name == "watch") {
        words.insert(words.end(), {unmarked(arguments.name), "--every", std::to_string(arguments.every), "--count",
                                   std::to_string(arguments.count)});
    } else if (name == "ping") {
        words.insert(words.end(), {"--count", std::to_string(arguments.pings)});
    } else {
        if (name != "read") {
            words.push_back(unmarked(arguments.name));
        }
        if (name == "write") {
            words.push_back(unmarked(arguments.value));
        }
        for (const auto& word : arguments.words) {
            words.push_back(unmarked(word));
        }
    }
    return words;
}

/// What is wrong with the command line.
std::string complaint(const CLI::App& app, const CLI::ParseError& error)
{
    const auto unknown = app.remaining(true);
    const bool hasCommand = !app.get_subcommands().empty();
    if (unknown.empty()) {
        return !hasCommand && error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError)
                   ? "a command is missing"
                   : error.what();
    }
    const auto& word = unknown.front();
    if (word.starts_with('-')) {
        const bool takesValues = hasCommand && (app.got_subcommand("write") || app.got_subcommand("call"));
        return "there is no option '" + word + "'" + (takesValues ? "; a value that begins with - goes behind --" : "");
    }
    if (hasCommand) {
        return "'" + word + "' is one word too many";
    }
    for (const auto* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (qv::isNear(command->get_name(), word)) {
            return "there is no command '" + word + "'; did you mean " + command->get_name() + "?";
        }
    }
    return "there is no command '" + word + "'";
}

/// A port that is opened when it is needed: a mistake in the words is told without it.
class LatePort : public qv::Line
{
public:
    LatePort(std::string device, unsigned baud)
        : mDevice(std::move(device))
        , mBaud(baud)
    {}

    /// As Port::open; later calls do nothing.
    void open()
    {
        if (!mPort) {
            mPort.emplace(qv::Port::open(mDevice, mBaud));
        }
    }
    void write(qv::ByteView bytes) override { mPort.value().write(bytes); }
    qv::Bytes read(qv::Clock::time_point deadline) override { return mPort.value().read(deadline); }

private:
    const std::string mDevice;
    const unsigned mBaud;
    std::optional<qv::Port> mPort;
};

/// The rate of the line from the environment when the command line has none. Gives what is wrong with it.
std::string takeBaudVariable(const CLI::App& app, tArguments& arguments)
{
    const auto* variable = std::getenv(kBaudVariable);
    if (app.count("--baud") != 0 || variable == nullptr || *variable == '\0') {
        return {};
    }
    std::string text = variable;
    const auto fault = checkRate(text);
    if (!fault.empty()) {
        return std::string(kBaudVariable) + ": " + fault;
    }
    arguments.baud = static_cast<unsigned>(std::stoul(text));
    return {};
}

int runOnLine(const CLI::App& command, const tArguments& arguments)
{
    LatePort port(arguments.port, arguments.baud);
    auto badOptions = arguments.bad;
    badOptions.delay = std::chrono::milliseconds(arguments.delay);
    std::unique_ptr<qv::BadLine> bad;
    if (!badOptions.isGood()) {
        bad = std::make_unique<qv::BadLine>(port, badOptions);
    }
    qv::tPeerOptions options;
    options.timeout = std::chrono::milliseconds(arguments.timeout);
    options.tries = arguments.tries;
    options.baud = arguments.baud;
    // A late answer to an earlier run must not look like the answer to this one's first frame.
    options.firstNumber = static_cast<std::uint8_t>(std::random_device()() % 16);
    qv::Peer peer(bad ? static_cast<qv::Line&>(*bad) : port, options);
    auto sessionOptions = arguments.session;
    sessionOptions.connect = [&port] { port.open(); };
    qv::Session session(peer, std::cout, std::cerr, sessionOptions);
    session.setTrace(arguments.trace);
    if (bad) {
        bad->setStop(&session.stopFlag());
    }
    if (command.get_name() == "shell") {
        port.open();
        return qv::runShell(session, {.historyFile = qv::defaultHistoryFile(), .extra = {}});
    }
    const qv::StopOnSignal stop(session);
    return session.run(commandWords(command, arguments));
}

/// A standard stream that the caller closed stays unusable. Otherwise the port would get its number, and what is meant
/// for the stream would go over the line.
void occupyStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) {
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

int run(int argc, char** argv)
{
    tArguments arguments;
    CLI::App app("QV's side of the line to a vorlan display: read and write its registers, call its methods.",
                 "vorlan-qv");
    app.set_version_flag("--version", kVersion);
    app.set_help_all_flag("--help-all", "print the help of every command too");
    app.require_subcommand(1);
    app.fallthrough();
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    addLineOptions(app, arguments);
    addOutputOptions(app, arguments);
    addBadLineOptions(app, arguments);
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    addCommands(app, arguments);
    app.footer(kFooter);
    try {
        app.parse(markNoOptions(argc, argv));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(error);
        }
        auto text = complaint(app, error);
        std::erase(text, kNoOptionMark);
        std::cerr << "vorlan-qv: " << text << "\n  See vorlan-qv --help.\n";
        return qv::eStatusUsage;
    }
    const auto& command = *app.get_subcommands().front();
    if (command.get_name() == "list") {
        qv::writeList(std::cout, arguments.session.json);
        return qv::eStatusDone;
    }
    if (arguments.port.empty()) {
        std::cerr << "vorlan-qv: which port? Give --port, for instance --port /dev/ttyUSB0, or set VORLAN_QV_PORT.\n";
        return qv::eStatusUsage;
    }
    if (const auto fault = takeBaudVariable(app, arguments); !fault.empty()) {
        std::cerr << "vorlan-qv: " << fault << '\n';
        return qv::eStatusUsage;
    }
    try {
        return runOnLine(command, arguments);
    } catch (const qv::PortInUse& error) {
        std::cerr << "vorlan-qv: " << error.what() << " ('fuser -v' with its name shows which).\n";
        return qv::eStatusNoAnswer;
    } catch (const qv::LineError& error) {
        std::cerr << "vorlan-qv: " << error.what() << '\n'
                  << "  Is it the right port (ls /dev/ttyUSB* /dev/ttyS*)? May you use it (group dialout)?\n";
        return qv::eStatusNoAnswer;
    }
}

} // namespace

int main(int argc, char** argv)
{
    occupyStandardStreams();
    const int status = run(argc, argv);
    if (!std::cout.flush()) {
        std::cerr << "vorlan-qv: the results could not be written\n";
        return status == qv::eStatusDone ? qv::eStatusNoAnswer : status;
    }
    return status;
}
