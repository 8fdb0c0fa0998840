#include "KlarboxKit/Safety/PinnedFolder.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/LinkFreePath.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/VolumeTop.hpp"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

std::shared_ptr<const PinnedFolder> pinned(UniqueFD descriptor, FileURL location) {
    return std::make_shared<const PinnedFolder>(
        PinnedFolder{.descriptor = std::move(descriptor), .location = std::move(location)});
}

/// The folder at a path that should have no links; null when it cannot be opened.
std::shared_ptr<const PinnedFolder> ifLinkFree(const FileURL &folder) {
    auto descriptor = openLinkFreeFolder(folder.path());
    if (!descriptor && (errno == EMFILE || errno == ENFILE || errno == ENOMEM)) {
        throw PlatformError::posix(errno); // which says nothing of the folder
    }
    return descriptor ? pinned(std::move(descriptor), folder) : nullptr;
}

} // namespace

std::shared_ptr<const PinnedFolder> PinnedFolder::open(const FileURL &folder) {
    auto descriptor = openLinkFreeFolder(folder.path());
    if (!descriptor) {
        throw PlatformError::posix(errno);
    }
    return pinned(std::move(descriptor), folder);
}

std::shared_ptr<const PinnedFolder> PinnedFolder::resolving(const FileURL &folder) {
    // A path that can be opened without a link is the folder's own: nothing else need be asked.
    if (auto itself = ifLinkFree(folder.standardized())) {
        return itself;
    }
    const auto real = FileManager::realPath(folder.path());
    return real ? ifLinkFree(FileURL(*real)) : nullptr;
}

std::shared_ptr<const PinnedFolder> PinnedFolder::open(const PinnedEntry &entry) {
    const auto location = entry.location();
    auto folder = FileManager::openDirectory(entry.parent(), entry.name, location);
    const auto opened = FileStatus::ofOpen(folder.get());
    const auto &seen = entry.status;
    if (!opened || (seen && (opened->inode != seen->inode || opened->device != seen->device))) {
        const auto name = Text::visible(location.lastComponent());
        throw PlatformError::fileChange(fmt::format("The folder “{}” was replaced.", name), ESTALE);
    }
    return pinned(std::move(folder), location);
}

NameList PinnedFolder::names() const {
    auto names = FileManager::contentsOfDirectory(descriptor, location);
    VolumeTop::leaveOutSystemsOwn(descriptor.get(), names);
    return names;
}

} // namespace klarbox
