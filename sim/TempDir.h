#pragma once

#include "sim/Child.h"

#include <optional>
#include <string>

namespace sim {

/// A folder, or a link with the given target, that is removed when the object goes, and also when this process dies in
/// any way: a guard process waits for that and removes it. What has taken the link's place meanwhile stays.
class PathGuard
{
public:
    explicit PathGuard(std::string path, std::string linkTarget = "");
    PathGuard(const PathGuard&) = delete;
    PathGuard& operator=(const PathGuard&) = delete;
    ~PathGuard();

private:
    const std::string mPath;
    const std::string mLinkTarget; ///< empty: a folder
    UniqueFd mEnd;                 ///< closed with this process
    Child mGuard;
};

/// A folder under /tmp that is gone when the object is, and also when this process dies in any way.
class TempDir
{
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
    std::optional<PathGuard> mGuard;
};

} // namespace sim
