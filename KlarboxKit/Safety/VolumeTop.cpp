#include "KlarboxKit/Safety/VolumeTop.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"

#include <algorithm>
#include <array>
#include <cerrno>

namespace klarbox::VolumeTop {

namespace {

constexpr std::array<std::string_view, 7> systemsNames{
    ".trashes",        ".trash",     ".fseventsd", ".spotlight-v100", ".documentrevisions-v100",
    ".temporaryitems", "lost+found",
};

/// Desktops have a Trash for each user, called by the number.
constexpr std::string_view trashOfUser = ".trash-";

} // namespace

bool isTop(int folder) {
    const auto status = FileStatus::ofOpen(folder);
    if (!status) {
        throw PlatformError::posix(errno);
    }
    if (status->isMountRoot) {
        return true;
    }
    const auto above = openFolderToSearch(folder, "..");
    const auto next = above ? FileStatus::ofOpen(above.get()) : std::nullopt;
    return !next || next->device != status->device || next->inode == status->inode;
}

bool isSystemsName(std::string_view name) {
    constexpr std::string_view firstLetters = ".lL";
    if (name.empty() || firstLetters.find(name.front()) == std::string_view::npos) {
        return false; // as nearly all of a large folder
    }
    // Many of these file systems do not know upper case from lower.
    const auto folded = Text::caseFolded(name);
    return std::ranges::count(systemsNames, folded) > 0 ||
           (folded.starts_with(trashOfUser) && folded.size() > trashOfUser.size() &&
            folded.find_first_not_of("0123456789", trashOfUser.size()) == std::string::npos);
}

void leaveOutSystemsOwn(int folder, std::vector<std::string> &names) {
    if (std::ranges::any_of(names, isSystemsName) && isTop(folder)) {
        std::erase_if(names, isSystemsName);
    }
}

void leaveOutSystemsOwn(int folder, NameList &names) {
    if (std::ranges::any_of(names, isSystemsName) && isTop(folder)) {
        NameList others;
        for (const auto name : names) {
            if (!isSystemsName(name)) {
                others.append(name);
            }
        }
        names = std::move(others);
    }
}

} // namespace klarbox::VolumeTop
