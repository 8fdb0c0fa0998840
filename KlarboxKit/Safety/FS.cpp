#include "KlarboxKit/Safety/FS.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Safety/VolumeTop.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

namespace klarbox::FS {

namespace {

/// The folder that the path leads to.
UniqueFD opened(const FileURL &folder) {
    const auto real = FileManager::realPath(folder.path());
    auto descriptor = real ? openFolderToSearch(AT_FDCWD, real->c_str()) : UniqueFD();
    if (!descriptor) {
        throw PlatformError::posix(errno);
    }
    return descriptor;
}

std::vector<FileURL> locations(const FileURL &folder, const std::vector<std::string> &names) {
    std::vector<FileURL> urls;
    urls.reserve(names.size());
    for (const auto &name : names) {
        urls.push_back(folder.appending(name));
    }
    return urls;
}

std::vector<FileURL> sortedURLs(const FileURL &folder, std::vector<std::string> names) {
    std::erase(names, ".DS_Store");
    if (std::ranges::any_of(names, VolumeTop::isSystemsName)) {
        VolumeTop::leaveOutSystemsOwn(opened(folder).get(), names);
    }
    std::ranges::sort(names);
    return locations(folder, names);
}

} // namespace

std::vector<FileURL> children(const FileURL &folder) {
    return sortedURLs(folder, FileManager::contentsOfDirectory(folder));
}

std::vector<FileURL> systemsOwn(const FileURL &folder) {
    const auto itself = openFolderToSearch(AT_FDCWD, folder.path().c_str());
    if (!itself || !VolumeTop::isTop(itself.get())) {
        return {};
    }
    auto names = FileManager::contentsOfDirectory(folder);
    std::erase_if(names, [](const auto &name) { return !VolumeTop::isSystemsName(name); });
    return locations(folder, names);
}

std::vector<FileURL> realDirectories(const FileURL &folder) {
    std::vector<std::string> names;
    for (auto &entry : FileManager::entriesOfDirectory(folder)) {
        const bool isDirectory = entry.type ? entry.type == FileManager::FileType::directory
                                            : isRealDirectory(folder.appending(entry.name));
        if (isDirectory) {
            names.push_back(std::move(entry.name));
        }
    }
    return sortedURLs(folder, std::move(names));
}

std::optional<Date> modificationDate(const FileURL &url) {
    return FileManager::modificationDate(url);
}

bool isRealDirectory(const FileURL &url) {
    return FileManager::type(url) == FileManager::FileType::directory;
}

std::string tildePath(const FileURL &url, const FileURL &home) {
    const auto &path = url.path();
    const auto &prefix = home.path();
    if (path.size() > prefix.size() && path.starts_with(prefix) && path[prefix.size()] == '/') {
        return "~" + path.substr(prefix.size());
    }
    return path;
}

bool isPermissionError(const std::exception &error) {
    const auto *platformError = dynamic_cast<const PlatformError *>(&error);
    for (; platformError != nullptr; platformError = platformError->cause()) {
        const int code = platformError->code();
        const bool isPOSIX = platformError->domain() == PlatformError::Domain::posix;
        if (isPOSIX ? code == EPERM || code == EACCES
                    : code == PlatformError::fileReadNoPermission) {
            return true;
        }
    }
    return false;
}

} // namespace klarbox::FS
