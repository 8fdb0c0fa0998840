#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <variant>

namespace klarbox::test {

/// What to put at one path of a `TemporaryTree`.
struct Entry {
    struct Bytes {
        std::size_t count;
    };
    struct Text {
        std::string text;
    };
    struct Directory {};
    struct SymbolicLink {
        std::string target;
    };
    struct HardLink {
        std::string target; ///< relative to the tree's root
    };

    std::string path; ///< relative to the tree's root; parents are made as needed
    std::variant<Bytes, Text, Directory, SymbolicLink, HardLink> what;
    std::optional<Date> modified = std::nullopt;
    std::optional<mode_t> mode = std::nullopt;
};

inline Entry::Bytes bytes(std::size_t count) {
    return {count};
}
inline Entry::Text text(std::string content) {
    return {std::move(content)};
}
inline Entry::Directory directory() {
    return {};
}
inline Entry::SymbolicLink link(std::string target) {
    return {std::move(target)};
}
inline Entry::HardLink hardLink(std::string target) {
    return {std::move(target)};
}

/// Throws the `std::system_error` of errno about `what` unless something holds.
void check(bool holds, const std::string &what);

/// Puts an entry at its place below `root`. Throws when that fails.
void makeEntry(const FileURL &root, const Entry &entry);

/// Sets when an entry itself (not what a link leads to) was last modified. Throws.
void setModified(const FileURL &url, Date date);

/// A folder of its own below the system's temporary folder (symbolic links resolved), filled as
/// declared and removed at the end, whatever modes its folders have by then.
class TemporaryTree {
public:
    /// Where the tree lies. Thousands of files are made and removed much faster in memory.
    enum class Medium { temporaryFolder, memoryIfPossible };

    TemporaryTree() : TemporaryTree({}) {}
    TemporaryTree(std::initializer_list<Entry> entries)
        : TemporaryTree(Medium::temporaryFolder, entries) {}
    TemporaryTree(Medium medium, std::initializer_list<Entry> entries);
    ~TemporaryTree();
    TemporaryTree(const TemporaryTree &) = delete;
    TemporaryTree &operator=(const TemporaryTree &) = delete;

    /// The tree's own folder.
    const FileURL &root() const { return root_; }
    /// The location at a relative path; nothing needs to be there.
    FileURL operator/(std::string_view relative) const { return root_.appending(relative); }
    /// Adds an entry, as `makeEntry` does.
    void add(const Entry &entry) const { makeEntry(root_, entry); }

private:
    FileURL root_;
};

inline constexpr auto inMemory = TemporaryTree::Medium::memoryIfPossible;

/// Every entry below a folder as one line each (path, type, mode, size, modification time, link
/// target, hash of the content), sorted: two equal manifests mean that nothing changed.
std::string manifest(const FileURL &folder);

/// Whether this process may read and remove what file modes forbid.
bool isRoot();

} // namespace klarbox::test
