#include "sim/Pty.h"

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace sim {

Pty::Pty(std::string linkPath)
    : mLink(std::move(linkPath))
{
    reopen();
}

Pty::~Pty()
{
    hangUp();
}

void Pty::hangUp()
{
    // The kernel gives the slave's number to the next pty on the machine: nobody may find that one behind our link.
    if (!mLink.empty())
        unlink(mLink.c_str());
    mMaster.reset();
    mSlave.reset();
}

void Pty::reopen()
{
    hangUp();
    mMaster.reset(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    char path[64] = "";
    if (!mMaster || grantpt(mMaster.get()) < 0 || unlockpt(mMaster.get()) < 0 ||
        ptsname_r(mMaster.get(), path, sizeof path) != 0)
        throw std::runtime_error("no pseudo terminal");
    mSlavePath = path;
    mSlave.reset(open(path, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios attributes{};
    if (!mSlave || tcgetattr(mSlave.get(), &attributes) < 0)
        throw std::runtime_error("no pseudo terminal");
    cfmakeraw(&attributes);
    tcsetattr(mSlave.get(), TCSANOW, &attributes);
    if (mLink.empty())
        return;
    const std::string fresh = mLink + ".new";
    unlink(fresh.c_str());
    if (symlink(path, fresh.c_str()) < 0 || rename(fresh.c_str(), mLink.c_str()) < 0)
        throw std::runtime_error("no link " + mLink);
}

} // namespace sim
