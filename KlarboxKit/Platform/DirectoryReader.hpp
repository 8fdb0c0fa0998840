#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace klarbox {

/// One entry as the listing of its folder tells it.
struct DirectoryEntry {
    enum class Kind : unsigned char { unknown, directory, other };

    const char *name;    ///< never "." or ".."; valid until the next `fill`
    std::uint64_t inode; ///< of the entry; at a mount point, of the folder mounted over
    Kind kind;           ///< a hint: the entry may have been replaced since
};

/// Lists open folders in large lots, without an allocation per entry or folder. One reader serves
/// any number of folders one after another; it owns no descriptor. For one thread at a time.
///
///     for (bool isLast = false; !isLast && reader.fill(folder); isLast = reader.isAtEnd()) {
///         for (DirectoryEntry entry; reader.next(entry);) { … }
///     }
class DirectoryReader {
public:
    DirectoryReader();

    /// Fetches the next lot from the position of the open folder `fd`, dropping what was left of
    /// the lot before. False when the listing is at its end or fails; `error` tells which.
    bool fill(int fd);

    /// The next entry of the lot; false when it is used up. A lot may hold none.
    bool next(DirectoryEntry &entry);

    /// Whether the lot, once used up, is known to be the last: then `fill` need not be asked again.
    bool isAtEnd() const { return isAtEnd_; }

    /// Why the last `fill` failed (an errno value), 0 when it did not.
    int error() const { return error_; }

private:
    std::unique_ptr<std::byte[]> buffer_;
    std::size_t filled_ = 0;
    std::size_t position_ = 0;
    bool isAtEnd_ = false;
    int error_ = 0;
};

} // namespace klarbox
