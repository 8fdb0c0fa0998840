#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/TreeRemoval.hpp"

#include <cerrno>

namespace klarbox {

void SecureDeleter::moveToTrash(const FileURL &) const {
    throw PlatformError::posix(ENOTSUP);
}

void SecureDeleter::deletePermanently(const FileURL &url) const {
    const auto entry = PinnedEntry::open(url);
    if (const int code = TreeRemoval(entry).run(); code != 0) {
        throw PlatformError::posix(code);
    }
}

} // namespace klarbox
