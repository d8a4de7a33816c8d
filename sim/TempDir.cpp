#include "sim/TempDir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace sim {

TempDir::TempDir()
{
    char path[] = "/tmp/vorlan-sim-XXXXXX";
    if (mkdtemp(path) == nullptr)
        throw std::runtime_error("no temporary folder in /tmp");
    mPath = path;

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        throw std::runtime_error("no pipe");
    const UniqueFd guardsEnd(ends[0]);
    mGuardEnd.reset(ends[1]);
    Child::tSpawn guard;
    guard.argv = {"/bin/sh", "-c", "read -r line; rm -rf -- \"$0\"", mPath};
    guard.environment = {"PATH=/usr/bin:/bin"};
    guard.in = guardsEnd.get();
    guard.outlives = true;
    mGuard = Child::spawn(guard);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
    mGuardEnd.reset();
    mGuard.wait();
}

} // namespace sim
