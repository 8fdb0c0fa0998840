#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Foundation/NameList.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <memory>

namespace klarbox {

struct PinnedEntry;

/// A folder held open. Whatever happens to the folders above it, its entries are found in it and
/// nowhere else. Immutable; shared by all the entries pinned in it, on any threads.
struct PinnedFolder {
    UniqueFD descriptor;
    FileURL location; ///< where it was when it was opened: for messages and for judging by name

    /// The folder at a path without links. Throws a POSIX `PlatformError`: ENOTDIR where there is a
    /// link or no folder, otherwise the code of the call that failed. Cannot be listed.
    static std::shared_ptr<const PinnedFolder> open(const FileURL &folder);

    /// The folder that a path leads to, through links if there are any; null when it leads to none.
    /// Throws a POSIX `PlatformError` only when this process, or the system, has no descriptor
    /// left. Cannot be listed.
    static std::shared_ptr<const PinnedFolder> resolving(const FileURL &folder);

    /// An entry that is a folder, for listing it and removing what is in it. Throws a
    /// `PlatformError` that names it when it is none, cannot be listed, or is no longer the folder
    /// that was looked at when it was pinned.
    static std::shared_ptr<const PinnedFolder> open(const PinnedEntry &entry);

    /// The names of its entries in the order of the file system; once, right after it was opened
    /// for listing; at the top of a volume without what the system keeps there. Throws a
    /// `PlatformError`, which names the folder when it cannot be listed to its end.
    NameList names() const;
};

} // namespace klarbox
