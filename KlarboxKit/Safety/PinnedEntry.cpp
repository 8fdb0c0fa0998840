#include "KlarboxKit/Safety/PinnedEntry.hpp"

#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <vector>

namespace klarbox {

namespace {

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> found;
    while (!path.empty()) {
        const auto slash = std::min(path.find('/'), path.size());
        if (slash > 0) {
            found.emplace_back(path.substr(0, slash));
        }
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return found;
}

bool isUnusable(const std::string &component) {
    return component == "." || component == ".." || component.find('\0') != std::string::npos;
}

UniqueFD opened(UniqueFD folder) {
    if (!folder) {
        throw PlatformError::posix(errno);
    }
    return folder;
}

} // namespace

PinnedEntry PinnedEntry::open(const FileURL &url) {
    const auto &path = url.path();
    auto leading = components(path);
    if (!path.starts_with('/') || leading.empty() || std::ranges::any_of(leading, isUnusable)) {
        throw PlatformError::posix(EINVAL);
    }
    auto name = std::move(leading.back());
    leading.pop_back();
    auto folder = opened(openFolderToSearch(AT_FDCWD, "/"));
    for (const auto &component : leading) {
        folder = opened(openFolderToSearch(folder.get(), component.c_str()));
    }
    const auto status = FileStatus::ofOpen(folder.get());
    if (!status) {
        throw PlatformError::posix(errno);
    }
    return {.folder = std::move(folder), .device = status->device, .name = std::move(name)};
}

} // namespace klarbox
