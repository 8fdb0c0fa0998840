#pragma once

#include "KlarboxKit/Platform/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstdint>
#include <string>

namespace klarbox {

/// An entry to be removed: its folder held open and its name in it. From here on nothing acts on a
/// path, so that whatever happens to the folders above it cannot lead anywhere else.
struct PinnedEntry {
    UniqueFD folder;      ///< good for looking below it, not for listing it
    std::uint64_t device; ///< of the file system that holds the folder
    std::string name;     ///< one component, neither "." nor ".."

    /// Opens the folders that lead to `url` one by one, following no link. Throws a POSIX
    /// `PlatformError`: EINVAL when the path is "/" or has "." or ".." or a NUL in it, otherwise
    /// the code of the call that failed. Safe from any thread.
    static PinnedEntry open(const FileURL &url);
};

} // namespace klarbox
