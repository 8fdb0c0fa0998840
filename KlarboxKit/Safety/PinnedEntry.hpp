#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Safety/PinnedFolder.hpp"

#include <memory>
#include <optional>
#include <string>

namespace klarbox {

/// An entry to be measured or removed: its folder held open and its name in it. From here on
/// nothing acts on a path, so that whatever happens to the folders above it cannot lead anywhere
/// else.
struct PinnedEntry {
    std::shared_ptr<const PinnedFolder> folder; ///< never null
    std::string name;                           ///< one component, neither "." nor ".."
    std::optional<FileStatus> status = {};      ///< as it was when it was looked at, if it was

    /// Opens the folder that holds `url`, following no link. Throws a POSIX `PlatformError`: EINVAL
    /// when the path is "/" or has "." or ".." or a NUL in it, otherwise the code of the call that
    /// failed. Does not look at the entry. Safe from any thread.
    static PinnedEntry open(const FileURL &url);

    /// The descriptor of the folder.
    int parent() const { return folder->descriptor.get(); }

    /// Where the entry was when its folder was opened.
    FileURL location() const {
        return folder->location.appending(name, status && status->isDirectory);
    }

    /// Whether it was looked at and was no folder: then there is nothing below it.
    bool isKnownNoFolder() const { return status && !status->isDirectory; }
};

} // namespace klarbox
