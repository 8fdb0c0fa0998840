#pragma once

#include "KlarboxKit/Platform/FileURL.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include <cstdint>
#include <optional>
#include <span>
#include <stop_token>
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

/// The sorted entries of a folder. When it cannot be listed, `scan` gets an issue that says why
/// (needs Full Disk Access, or the failure's message) and there are none.
std::vector<FileURL> childrenOrIssue(const FileURL &folder, const ScanContext &context,
                                     CategoryScan &scan);

/// Sorts by size, largest first; equal sizes keep their order.
void sortLargestFirst(std::vector<KlarboxItem> &items);

} // namespace klarbox::ScannerSupport
