#include "core/Vorlan.h"
#include "os/Log.h"

#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <string>

namespace {

constexpr int kLargeBlock = 128 * 1024; ///< bytes; larger ones do not live in the heap

/// Without allocating: there may be no memory left.
[[noreturn]] void endWith(const char* reason)
{
    logErr({"vorlan: ended by ", reason});
    _exit(EX_SOFTWARE);
}

/// An exception that nobody catches ends the daemon with a line and a status: an abort would tell nothing.
[[noreturn]] void onTerminate()
{
    if (!std::current_exception())
        endWith("std::terminate");
    try {
        throw;
    } catch (const std::exception& e) {
        endWith(e.what());
    } catch (...) {
        endWith("an exception without a text");
    }
}

struct tOptions
{
    std::string device = "/dev/ttyS0";
    unsigned int baud = 0; ///< bit/s; 0: device and rate come from the system daemon's configuration
};

void print_usage()
{
    // A backspace where a tab was meant, in the last line: on a terminal it takes the '>' away. It stays as it is.
    for (const char* line :
         {"Usage: vorlan daemon [-opts]", "", "Options:", "-s, --serialdev=path\tpath to serial device",
          "-b, --baudrate=<num>\baudrate to serial device"})
        logOut({line});
}

[[noreturn]] void refuse()
{
    print_usage();
    std::exit(1);
}

unsigned int toBaud(const char* text)
{
    try {
        return static_cast<unsigned int>(std::stoi(text));
    } catch (const std::exception&) {
        refuse();
    }
}

tOptions parseOptions(int argc, char** argv)
{
    static const option kOptions[] = {{"serialdev", required_argument, nullptr, 's'},
                                      {"baudrate", required_argument, nullptr, 'b'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    tOptions options;
    for (int opt = 0; (opt = getopt_long(argc, argv, "s:b:h?", kOptions, nullptr)) != -1;) {
        if (opt == 's')
            options.device = optarg;
        else if (opt == 'b')
            options.baud = toBaud(optarg);
        else
            refuse();
    }
    return options;
}

/// A standard descriptor that was closed at the start would be given to the line or to a bus, and log lines with it.
void fillStandardDescriptors()
{
    int fd = open("/dev/null", O_RDWR);
    while (fd >= STDIN_FILENO && fd <= STDERR_FILENO)
        fd = dup(fd);
    close(fd);
}

} // namespace

int main(int argc, char** argv)
{
    std::set_terminate(onTerminate);
    fillStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN);          // it does not matter whether anybody reads the log
    std::signal(SIGXFSZ, SIG_IGN);          // nor how long the file has become that takes it
    prctl(PR_SET_TIMERSLACK, 1UL);          // ns: the settle pause of the line is short
    mallopt(M_MMAP_THRESHOLD, kLargeBlock); // fixed: a flood's buffers go back to the system, whatever came before
    logOut({"kelvora vorlan daemon started"});
    const tOptions options = parseOptions(argc, argv);
    Vorlan vorlan;
    vorlan.init();
    vorlan.setSerialCfg(options.device, options.baud);
    vorlan.run();
    logOut({"kelvora vorlan daemon stopped"});
    return 0;
}
