#include "sim/Tool.h"

#include "qv/Port.h"
#include "qv/Shell.h"
#include "sim/Faults.h"
#include "sim/LineTap.h"
#include "sim/Show.h"
#include "sim/Story.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <system_error>

namespace sim {

namespace {

constexpr unsigned kBaud = 115200;
constexpr milliseconds kStoryLogos{600}; ///< long enough to be seen

void printFaultHelp()
{
    for (const std::string& line : Faults::help())
        std::cout << "  " << line << '\n';
}

int applyFault(Faults& faults, const std::string& command)
{
    try {
        faults.apply(command);
        return qv::eStatusDone;
    } catch (const std::invalid_argument& error) {
        std::cerr << error.what() << '\n';
        return qv::eStatusUsage;
    }
}

void printHead(std::FILE* out, Device& device, const LineTap& tap, bool portIsFree)
{
    const std::string qv = portIsFree ? "  " VORLAN_QV_EXECUTABLE " --port " + tap.path() + " read ip-addr\n" : "";
    std::fprintf(
        out,
        "A simulated display. Its buses and its serial line are private: no service of this machine is called.\n%s"
        "To join in from another terminal:\n%s"
        "  DBUS_SYSTEM_BUS_ADDRESS=%s DBUS_SESSION_BUS_ADDRESS=%s busctl --user introspect com.kelvora.vorlan "
        "/com/kelvora/vorlan\n\n",
        Show::legend(), qv.c_str(), device.systemBus().address().c_str(), device.userBus().address().c_str());
    std::fflush(out);
}

/// The link by which other tools find the port. What is already there belongs to somebody else and stays.
std::unique_ptr<PathGuard> linkPort(const std::string& link, const std::string& port)
{
    if (symlink(port.c_str(), link.c_str()) < 0)
        throw std::runtime_error("cannot make the link " + link + ": " + std::generic_category().message(errno));
    return std::make_unique<PathGuard>(link, port);
}

/// A device to play with: commands from standard input until its end is asked for.
class Playground
{
public:
    Playground(Device& device, Faults& faults, const tArguments& arguments)
        : mDevice(device)
        , mFaults(faults)
        , mArguments(arguments)
    {}

    void run(int signals)
    {
        startDaemon();
        std::cout << "Type faults, daemon, stop, kill or quit (help shows all); Ctrl-C ends it all.\n" << std::flush;
        pollfd pollers[] = {{signals, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        while (!mQuit) {
            if (poll(pollers, 2, -1) < 0)
                continue;
            if (pollers[0].revents != 0)
                return;
            if (pollers[1].revents != 0 && !readInput())
                pollers[1].fd = -1; // no more commands; a signal ends it
        }
    }

private:
    void startDaemon()
    {
        if (!mArguments.daemon.empty())
            mDevice.start(mArguments.daemon, mArguments.daemonArguments);
    }

    void startDaemonAgain()
    {
        if (mArguments.daemon.empty())
            std::cout << "there is no daemon to start: vorlan-sim was started without --daemon\n";
        else if (mDevice.daemon().running())
            std::cout << "the daemon runs; stop or kill it first\n";
        else
            startDaemon();
    }

    void signalDaemon(int number)
    {
        if (!mDevice.daemon().running())
            std::cout << "no daemon runs\n";
        else
            mDevice.daemon().signal(number);
    }

    void killDaemon()
    {
        signalDaemon(SIGKILL);
        mDevice.daemon().waitExit(kDeadline); // so that the next command finds it gone
    }

    static void printHelp()
    {
        printFaultHelp();
        std::cout << "  daemon     start the daemon\n"
                     "  stop       ask it to stop (SIGTERM); it does so with the next request\n"
                     "  kill       end it at once (SIGKILL)\n"
                     "  quit       end it all\n";
    }

    bool readInput()
    {
        char chunk[4096];
        const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0)
            return false;
        mTyped.append(chunk, static_cast<std::size_t>(got));
        for (auto end = mTyped.find('\n'); end != std::string::npos; end = mTyped.find('\n')) {
            runCommand(mTyped.substr(0, end));
            mTyped.erase(0, end + 1);
        }
        return true;
    }

    void runCommand(const std::string& command)
    {
        if (command.empty())
            return;
        if (command == "help")
            printHelp();
        else if (command == "quit")
            mQuit = true;
        else if (command == "daemon")
            startDaemonAgain();
        else if (command == "stop")
            signalDaemon(SIGTERM);
        else if (command == "kill")
            killDaemon();
        else if (command.find('=') == std::string::npos)
            std::cout << "there is no command '" << command << "'; help shows all\n";
        else if (applyFault(mFaults, command) == qv::eStatusDone)
            mDevice.timeline().note("-- " + command);
        std::cout << std::flush;
    }

    Device& mDevice;
    Faults& mFaults;
    const tArguments& mArguments;
    std::string mTyped;
    bool mQuit = false;
};

/// QV's prompt on the simulated device, with the command "fault".
void runPrompt(qv::Peer& peer, Faults& faults, Device& device)
{
    qv::Session session(peer, std::cout, std::cerr);
    qv::tExtraCommand fault;
    fault.name = "fault";
    fault.usage = "[WHAT=HOW]";
    fault.meaning = "make the device misbehave; alone: what there is";
    fault.run = [&](std::span<const std::string> words) -> int {
        if (words.empty())
            printFaultHelp();
        for (const std::string& word : words) {
            if (const int status = applyFault(faults, word); status != qv::eStatusDone)
                return status;
            device.timeline().note("-- " + word);
        }
        return qv::eStatusDone;
    };
    fault.complete = [&](std::span<const std::string>) {
        std::vector<std::string> out;
        for (const std::string& target : faults.targets())
            out.push_back(target + "=");
        return out;
    };
    std::cout << "\nThe daemon is yours: this is QV's prompt. Try: read ip-addr   call beep   fault sysd=absent   help "
                 "  quit\n"
              << std::flush;
    qv::runShell(session, {.historyFile = qv::defaultHistoryFile(), .extra = {fault}});
}

void runStory(Device& device, LineTap& tap, Faults& faults, Show& show, const tArguments& arguments)
{
    auto port = qv::Port::open(tap.path(), kBaud);
    qv::Peer peer(port);
    Story story(device, peer, arguments.daemon, arguments.bootFile);
    story.play();
    if (isatty(STDIN_FILENO) == 0) {
        story.playUpdate();
        return;
    }
    show.overPrompt(true);
    runPrompt(peer, faults, device);
    show.overPrompt(false);
    if (device.daemon().running())
        story.stop();
}

/// For the playground: these signals are read, not suffered. To be called before any thread starts.
int blockSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

} // namespace

int runTool(const tArguments& arguments)
{
    // The story suffers them: the kernel then ends the children, the guards remove what is left.
    const UniqueFd signals(arguments.story ? -1 : blockSignals());
    const bool jsonOnly = arguments.json == "-";
    std::FILE* people = jsonOnly ? stderr : stdout;
    Show show(arguments.quiet ? nullptr : people);
    if (!arguments.json.empty())
        show.writeJson(arguments.json);
    Device device;
    device.timeline().listen([&](const tEvent& event, bool later) { show(event, later); });
    LineTap tap(device);
    std::unique_ptr<PathGuard> link;
    if (!arguments.portLink.empty())
        link = linkPort(arguments.portLink, tap.path());
    if (arguments.story)
        device.logo().setDuration(kStoryLogos);
    Faults faults(device);
    for (const std::string& fault : arguments.faults)
        faults.apply(fault);
    if (!arguments.quiet)
        printHead(people, device, tap, !arguments.story); // the story plays QV itself
    try {
        if (arguments.story)
            runStory(device, tap, faults, show, arguments);
        else
            Playground(device, faults, arguments).run(signals.get());
    } catch (const StoryFailure& failure) {
        tEvent event;
        event.member = "failed";
        event.arguments = failure.what();
        device.timeline().add(event);
        if (arguments.quiet)
            std::cerr << failure.what() << '\n';
        return 1;
    }
    return 0;
}

} // namespace sim
