#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <exception>
#include <optional>
#include <string>
#include <vector>

/// Small file-system helpers that the scanners share. Stateless; safe from any thread.
namespace klarbox::FS {

/// The entries of a folder but for ".DS_Store", sorted by the bytes of their names, hidden ones
/// included, but for what the system keeps at the top of a volume. Throws `PlatformError` when the
/// folder cannot be listed.
std::vector<FileURL> children(const FileURL &folder);

/// What `children` leaves out of a folder (itself, no link to one) because the system keeps it at
/// the top of a volume; none for anything else. Throws `PlatformError` when it cannot be listed.
std::vector<FileURL> systemsOwn(const FileURL &folder);

/// Those of the `children` that are directories themselves, links to directories left out. Looks at
/// the entries one by one only where the file system's listing does not tell their types.
std::vector<FileURL> realDirectories(const FileURL &folder);

/// When the entry itself (not what a link leads to) was last modified; nothing when unknown.
std::optional<Date> modificationDate(const FileURL &url);

/// Whether the entry itself is a directory; a symbolic link to one is not.
bool isRealDirectory(const FileURL &url);

/// The path for display: "~" in place of the home folder for what lies below it.
std::string tildePath(const FileURL &url, const FileURL &home);

/// Whether the error, or any cause down its chain, says that a permission was missing.
bool isPermissionError(const std::exception &error);

} // namespace klarbox::FS
