#pragma once

#include <string>
#include <string_view>

namespace klarbox {

/// An absolute file-system location. The path is bytes, not text: it need not be UTF-8.
///
/// Immutable value; every operation but the making of one from a relative path is lexical and
/// touches no disk. Safe from any thread.
class FileURL {
public:
    /// The root folder.
    FileURL() = default;

    /// Takes a path as written. A relative path is resolved against the process's current folder;
    /// throws `PlatformError` when that is gone. Trailing slashes are dropped (a system call given
    /// one would follow a final link); one marks the location as a directory, as `isDirectory`
    /// does. Nothing else is normalised.
    explicit FileURL(std::string_view path, bool isDirectory = false);

    /// The path, beginning with "/" and without a trailing slash (but for "/" itself).
    const std::string &path() const { return path_; }

    /// Whether whoever made this location knew it to be a directory. A hint, not part of identity.
    bool isDirectory() const { return isDirectory_; }

    /// The same location without "." and empty components, with ".." folded against the component
    /// before it ("/.." is "/").
    FileURL standardized() const;

    /// The text after the last slash; "/" for the root folder.
    std::string_view lastComponent() const;

    /// The text of the last component after its last "."; empty without one.
    std::string_view extension() const;

    /// The last component without its extension and the dot before it.
    std::string_view stem() const;

    /// The location without its last component, marked as a directory; the root is its own parent.
    FileURL parent() const;

    /// This path, a slash and `relative` exactly as given (but for trailing slashes).
    FileURL appending(std::string_view relative, bool isDirectory = false) const;

    friend bool operator==(const FileURL &a, const FileURL &b) { return a.path_ == b.path_; }

private:
    std::string path_ = "/";
    bool isDirectory_ = true;
};

} // namespace klarbox
