#pragma once

#include "KlarboxKit/Foundation/Date.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Foundation/NameList.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The file system as the engine asks about it. Paths are bytes. Failures are `PlatformError`s in
/// the Cocoa domain that name the file and carry the POSIX error as their cause. Stateless; safe
/// from any thread.
namespace klarbox::FileManager {

enum class FileType { regular, directory, symbolicLink, other };

/// Whether anything exists at the path, symbolic links followed (a dangling link does not exist).
bool exists(const FileURL &url);

/// Whether the path leads to a directory, symbolic links followed.
bool isDirectory(const FileURL &url);

/// Whether the path leads to a regular file that this process may execute.
bool isExecutableFile(const FileURL &url);

/// What the entry itself is, a final symbolic link not followed; nothing when it has no status.
std::optional<FileType> type(const FileURL &url);

/// When the entry itself (a final symbolic link not followed) was last modified; nothing when it
/// has no status.
std::optional<Date> modificationDate(const FileURL &url);

/// What a look at an entry tells.
struct EntryFacts {
    FileType type;
    Date modified;
};

/// A look at the entry itself, or at what it leads to when links are `followed`; nothing only when
/// there is none. Throws when it cannot be looked at: then nobody knows whether there is one.
enum class FinalLink { itself, followed };
std::optional<EntryFacts> facts(const FileURL &url, FinalLink link = FinalLink::itself);

/// Whether the path is known to lead to nothing, symbolic links followed. What cannot be looked at
/// neither `exists` nor is missing.
bool isMissing(const FileURL &url);

/// Whether the path leads to a file system on which nothing can be changed; false when it cannot be
/// looked at.
bool isOnReadOnlyVolume(const FileURL &url);

/// The path with every symbolic link resolved; nothing when it does not lead anywhere.
std::optional<std::string> realPath(std::string_view path);

/// The names of a folder's entries in the order of the file system, without "." and "..".
/// Throws when the folder cannot be listed to its end.
std::vector<std::string> contentsOfDirectory(const FileURL &url);

/// Opens the folder `name` of the open folder `at` for listing, following no link. Throws when it
/// cannot be opened; `url` is where it is taken to be, which names it there.
UniqueFD openDirectory(int at, const std::string &name, const FileURL &url);

/// The names of the entries of a folder that was opened for listing just now, wherever it is by
/// now.
NameList contentsOfDirectory(const UniqueFD &folder, const FileURL &url);

/// One entry of a folder as its listing tells it.
struct ListedEntry {
    std::string name;
    std::optional<FileType> type; ///< nothing when the file system keeps no types in its listings
};

/// The same entries with the types that the listing gives without a look at each entry.
std::vector<ListedEntry> entriesOfDirectory(const FileURL &url);

/// The bytes of a regular file, symbolic links followed. Never waits (on a FIFO, say). Throws when
/// the file cannot be read, is no regular file, or is longer than `limit` bytes.
std::string contents(const FileURL &url, std::size_t limit = SIZE_MAX);

/// Replaces the file at `url` as one step: readers see the old bytes or the new ones, a failure
/// leaves the old ones, and nothing is written through a symbolic link. Missing parent folders are
/// made, private to the user. A new file is readable by its owner alone, this user; one that
/// replaces another is for whom that was. Takes away what killed processes left of such a step.
void writeAtomically(const FileURL &url, std::string_view bytes);

/// The file to replace when `url` is to be: itself or, when it is a link, what this leads to.
/// Throws when the link is another user's, root apart, or leads to nothing.
FileURL behindOwnLink(const FileURL &url);

/// Holds a folder among the processes that ask for it like this, until the descriptor is closed;
/// waits for its turn. Missing folders are made, private to the user. Where a file system knows no
/// locks nobody waits.
UniqueFD lock(const FileURL &folder);

/// The home folder of the user this process runs as: `HOME`, or the user database without it.
FileURL homeDirectory();

} // namespace klarbox::FileManager
