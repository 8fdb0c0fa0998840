#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

/// What several scanners do the same way. Stateless; safe from any thread.
namespace klarbox::ScannerSupport {

/// The allocated size of all the trees together when that is worth offering: at least 1 byte and
/// at least the context's minimum. A requested `stop` cuts the measurement short and the size so
/// far is judged; a default token never does.
std::optional<std::int64_t> offeredSize(std::span<const FileURL> urls, const ScanContext &context,
                                        std::stop_token stop = {});

/// The same for one tree.
std::optional<std::int64_t> offeredSize(const FileURL &url, const ScanContext &context,
                                        std::stop_token stop = {});

/// The sorted entries of a folder; none when it cannot be listed.
std::vector<FileURL> childrenOrNone(const FileURL &folder);

/// The sorted real directories in a folder; none when it cannot be listed.
std::vector<FileURL> foldersOrNone(const FileURL &folder);

/// The sorted entries of a folder; none when there is no such folder. When it cannot be listed,
/// `scan` gets an issue that says why (needs Full Disk Access, or the failure's message) and there
/// are none.
std::vector<FileURL> childrenOrIssue(const FileURL &folder, const ScanContext &context,
                                     CategoryScan &scan);

/// What is shown of an entry that is worth offering: the entry and its size in bytes. Nothing when
/// it is not to be offered after all.
using ItemMaker =
    std::function<std::optional<KlarboxItem>(const FileURL &entry, std::int64_t size)>;

/// One item for each of the entries that is worth offering, in their order. A requested `stop` ends
/// it early with the items so far; a default token never does.
std::vector<KlarboxItem> offeredItems(std::span<const FileURL> entries, const ScanContext &context,
                                      const std::stop_token &stop, const ItemMaker &makeItem);

/// The contents of a folder, so that the folder stays; else the entry itself. A link to a folder is
/// a folder only where links are followed. Nothing when it cannot be told which.
std::optional<KlarboxTarget> contentsOrItself(const FileURL &entry, FileManager::FinalLink link);

/// How a cache folder is offered whose name is, by custom, its application's bundle identifier.
struct CacheTraits {
    std::string title; ///< the installed application's name, or the folder's without one
    SafetyTier tier;
    std::optional<std::string> note;
    bool isSelectedByDefault;
};

/// A running application's cache carries a warning and Apple's own caches carry `appleNote` and are
/// for review; neither starts out selected.
CacheTraits cacheTraits(std::string_view name, const ScanContext &context,
                        std::string_view appleNote);

/// The property list in a file when its top level is a dictionary; nothing when it is not, or when
/// the file cannot be read or is no property list.
std::optional<PropertyList> dictionary(const FileURL &file);

/// The first `limit` names joined by ", ", followed by ", ..." when there are more.
std::string firstOf(std::span<const std::string> names, std::size_t limit);

/// Sorts by size, largest first; equal sizes keep their order.
void sortLargestFirst(std::vector<KlarboxItem> &items);

} // namespace klarbox::ScannerSupport
