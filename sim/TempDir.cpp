#include "sim/TempDir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace sim {

PathGuard::PathGuard(std::string path)
    : mPath(std::move(path))
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        throw std::runtime_error("no pipe");
    const UniqueFd guardsEnd(ends[0]);
    mEnd.reset(ends[1]);
    Child::tSpawn guard;
    guard.argv = {"/bin/sh", "-c", "read -r line; rm -rf -- \"$0\"", mPath};
    guard.environment = {"PATH=/usr/bin:/bin"};
    guard.in = guardsEnd.get();
    guard.outlives = true;
    mGuard = Child::spawn(guard);
}

PathGuard::~PathGuard()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
    mEnd.reset();
    mGuard.wait();
}

TempDir::TempDir()
{
    char path[] = "/tmp/vorlan-sim-XXXXXX";
    if (mkdtemp(path) == nullptr)
        throw std::runtime_error("no temporary folder in /tmp");
    mPath = path;
    mGuard.emplace(mPath);
}

} // namespace sim
