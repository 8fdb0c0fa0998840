#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The files by which applications that are no bundles announce themselves.
namespace klarbox::DesktopEntries {

/// The folders that may hold entries, what counts first coming first: those of the person whose
/// home this is, of the user this process runs as, and of the system. They need not exist. Empty on
/// a system without desktop entries. Safe from any thread as long as the environment stays as it
/// is.
std::vector<FileURL> folders(const FileURL &home);

/// The application's identifier in a file name; nothing when it is not the name of an entry.
std::optional<std::string_view> identifier(std::string_view fileName);

/// The application's name in the bytes of an entry; nothing when there is none.
std::optional<std::string> name(std::string_view entry);

} // namespace klarbox::DesktopEntries
