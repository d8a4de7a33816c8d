#pragma once

#include "sim/Handles.h"

#include <string>

namespace sim {

/// A line: a pair of pseudo terminals in raw mode. The master is QV's end, the slave the daemon's device. The slave is
/// held open here too, so that bytes wait for the daemon while it restarts; the only hang-up is hangUp().
class Pty
{
public:
    /// With a link path, path() is a symbolic link that stays the same when the line is opened again.
    explicit Pty(std::string linkPath = "");
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;
    ~Pty();

    /// QV's end: not blocking, close-on-exec; -1 while hung up.
    int master() const { return mMaster.get(); }
    /// The device that the daemon opens.
    std::string path() const { return mLink.empty() ? mSlavePath : mLink; }
    /// /dev/pts/N of the moment.
    const std::string& slavePath() const { return mSlavePath; }

    /// Closes the master: whoever has the slave open sees a hung-up line, and there is no device behind the link path.
    void hangUp();
    /// A fresh pair, after hangUp(); behind the same link path.
    void reopen();

private:
    std::string mLink;
    std::string mSlavePath;
    UniqueFd mMaster;
    UniqueFd mSlave;
};

} // namespace sim
