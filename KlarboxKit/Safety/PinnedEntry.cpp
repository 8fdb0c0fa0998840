#include "KlarboxKit/Safety/PinnedEntry.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <cerrno>
#include <string_view>

namespace klarbox {

namespace {

/// Whether every component of an absolute path names a place of its own.
bool namesEveryPlace(const std::string &path) {
    const auto slashed = path + "/";
    return path.starts_with('/') && path.find('\0') == std::string::npos &&
           slashed.find("/./") == std::string::npos && slashed.find("/../") == std::string::npos;
}

} // namespace

PinnedEntry PinnedEntry::open(const FileURL &url) {
    if (!namesEveryPlace(url.path()) || url.path() == "/") {
        throw PlatformError::posix(EINVAL);
    }
    return {.folder = PinnedFolder::open(url.parent()), .name = std::string(url.lastComponent())};
}

} // namespace klarbox
