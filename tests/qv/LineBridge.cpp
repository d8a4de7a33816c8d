#include "tests/qv/LineBridge.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

LineBridge::LineBridge(int lineMaster)
    : mLine(lineMaster)
    , mOwn(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    , mStop(eventfd(0, EFD_CLOEXEC))
{
    std::array<char, 64> name{};
    if (grantpt(mOwn) != 0 || unlockpt(mOwn) != 0 || ptsname_r(mOwn, name.data(), name.size()) != 0) {
        throw std::runtime_error("no pseudo terminal");
    }
    mDevice = name.data();
    mHeldOpen = open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios settings{};
    tcgetattr(mHeldOpen, &settings);
    cfmakeraw(&settings);
    tcsetattr(mHeldOpen, TCSANOW, &settings);
    mThread = std::thread([this] { run(); });
}

LineBridge::~LineBridge()
{
    eventfd_write(mStop, 1);
    mThread.join();
    for (const int fd : {mOwn, mHeldOpen, mStop}) {
        close(fd);
    }
}

void LineBridge::pass(int from, int to) const
{
    std::array<char, 4096> bytes{};
    const auto count = read(from, bytes.data(), bytes.size());
    for (ssize_t passed = 0; passed < count;) {
        const auto now = write(to, bytes.data() + passed, static_cast<std::size_t>(count - passed));
        if (now > 0) {
            passed += now;
            continue;
        }
        std::array<pollfd, 2> wait{{{to, POLLOUT, 0}, {mStop, POLLIN, 0}}};
        if (poll(wait.data(), wait.size(), -1) < 0 || wait[1].revents != 0) {
            return;
        }
    }
}

void LineBridge::run()
{
    for (;;) {
        std::array<pollfd, 3> wait{{{mLine, POLLIN, 0}, {mOwn, POLLIN, 0}, {mStop, POLLIN, 0}}};
        if (poll(wait.data(), wait.size(), -1) < 0 || wait[2].revents != 0) {
            return;
        }
        if ((wait[0].revents & POLLIN) != 0) {
            pass(mLine, mOwn);
        }
        if ((wait[1].revents & POLLIN) != 0) {
            pass(mOwn, mLine);
        }
    }
}
