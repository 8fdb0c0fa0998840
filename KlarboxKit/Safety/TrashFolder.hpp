#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace klarbox {

/// One of a user's Trash folders, held open. Movable; for one thread at a time.
class TrashFolder {
public:
    /// ".Trash" in a home folder, made when it is missing; nothing when there is no such home, or
    /// when what is on `device` cannot be moved there. It may be a link of this user's own to a
    /// folder of this user's that `guard` lets be emptied. Throws a `PlatformError`, also when
    /// something else is in its place.
    static std::optional<TrashFolder> inHome(const FileURL &home, std::uint64_t device,
                                             const SafetyGuard &guard);

    /// The user's own folder in ".Trashes" at the top of the volume that holds the entry; both are
    /// made when they are missing. Throws a `PlatformError`, also when something else is in the
    /// place of one or one is not safe from other users.
    static TrashFolder onVolume(const PinnedEntry &entry);

    /// Moves the entry here as one step, under its own name or, when that is taken, the first free
    /// one with a number before its extension. Nothing is replaced or copied. Answers an errno
    /// value, 0 for none: EXDEV when the entry is on another volume.
    int take(const PinnedEntry &entry);

    /// Device and inode of the folder.
    using Identity = std::pair<std::uint64_t, std::uint64_t>;
    Identity identity() const;

private:
    explicit TrashFolder(UniqueFD folder) : folder_(std::move(folder)) {}

    UniqueFD folder_;
    /// Where to begin to look for a free number, by names of which many are taken.
    std::unordered_map<std::string, int> nextNumbers_;
};

/// The name that an entry gets in a Trash where its own is taken: the number before the extension,
/// "notes 2.txt". Shortened where a file system would not take it; never within a character.
std::string numberedName(const std::string &name, int number);

} // namespace klarbox
