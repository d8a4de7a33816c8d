#include "sim/TempDir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace sim {

PathGuard::PathGuard(std::string path, std::string linkTarget)
    : mPath(std::move(path))
    , mLinkTarget(std::move(linkTarget))
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        throw std::runtime_error("no pipe");
    const UniqueFd guardsEnd(ends[0]);
    mEnd.reset(ends[1]);
    Child::tSpawn guard;
    const char* removal = mLinkTarget.empty()
                              ? "read -r line; rm -rf -- \"$0\""
                              : R"sh(read -r line; [ "$(readlink -- "$0")" != "$1" ] || rm -f -- "$0")sh";
    guard.argv = {"/bin/sh", "-c", removal, mPath, mLinkTarget};
    guard.environment = {"PATH=/usr/bin:/bin"};
    guard.in = guardsEnd.get();
    guard.outlives = true;
    mGuard = Child::spawn(guard);
}

PathGuard::~PathGuard()
{
    std::error_code ignored;
    if (mLinkTarget.empty())
        std::filesystem::remove_all(mPath, ignored);
    else if (std::filesystem::read_symlink(mPath, ignored) == mLinkTarget)
        unlink(mPath.c_str());
    mEnd.reset();
    mGuard.wait();
}

TempDir::TempDir()
{
    char path[] = "/tmp/vorlan-sim-XXXXXX"; // mkdtemp fills in the last six
    if (mkdtemp(path) == nullptr)
        throw std::runtime_error("no temporary folder in /tmp");
    mPath = path;
    mGuard.emplace(mPath);
}

} // namespace sim
