#include "KlarboxKit/Safety/ItemRemover.hpp"

#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/LinkFreePath.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <cerrno>

namespace klarbox {

namespace {

/// Where the entry was pinned, if that path still leads to the folder that is held.
FileURL placeOf(const PinnedEntry &entry) {
    const auto folder = openLinkFreeFolder(entry.folder->location.path());
    const auto there = folder ? FileStatus::ofOpen(folder.get()) : std::nullopt;
    if (!there && errno == ENOENT) {
        throw SafetyRefusal(SafetyViolation::notFound);
    }
    const auto held = FileStatus::ofOpen(entry.parent());
    if (!there || !held || there->inode != held->inode || there->device != held->device) {
        throw SafetyRefusal(SafetyViolation::symlinkEscape);
    }
    return entry.location();
}

} // namespace

void ItemRemover::moveToTrash(const PinnedEntry &entry) const {
    moveToTrash(placeOf(entry));
}

void ItemRemover::deletePermanently(const PinnedEntry &entry, const CancellationTest &) const {
    deletePermanently(placeOf(entry));
}

} // namespace klarbox
