#pragma once

#include "sim/Child.h"

#include <string>

namespace sim {

/// A folder under /tmp that is gone when the object is, and also when this process dies in any way: a guard process
/// waits for that and removes it.
class TempDir
{
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
    UniqueFd mGuardEnd;
    Child mGuard;
};

} // namespace sim
