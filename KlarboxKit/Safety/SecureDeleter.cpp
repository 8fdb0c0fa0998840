#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/TreeRemoval.hpp"

#include <cerrno>
#include <unistd.h>

namespace klarbox {

namespace {

/// Answers an errno value, 0 for none.
int remove(const PinnedEntry &entry, const ItemRemover::CancellationTest &isCancelled) {
    if (entry.isKnownNoFolder()) {
        if (::unlinkat(entry.parent(), entry.name.c_str(), 0) == 0) {
            return 0;
        }
        // It may be a folder by now; that is what the system says of one.
        if (errno != EISDIR && errno != EPERM) {
            return errno;
        }
    }
    return TreeRemoval(entry, isCancelled).run();
}

} // namespace

void SecureDeleter::moveToTrash(const FileURL &) const {
    throw PlatformError::posix(ENOTSUP);
}

void SecureDeleter::moveToTrash(const PinnedEntry &) const {
    throw PlatformError::posix(ENOTSUP);
}

void SecureDeleter::deletePermanently(const FileURL &url) const {
    deletePermanently(PinnedEntry::open(url), {});
}

void SecureDeleter::deletePermanently(const PinnedEntry &entry,
                                      const CancellationTest &isCancelled) const {
    if (const int code = remove(entry, isCancelled); code != 0) {
        throw PlatformError::posix(code);
    }
}

} // namespace klarbox
