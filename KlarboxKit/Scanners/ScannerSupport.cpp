#include "KlarboxKit/Scanners/ScannerSupport.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FS.hpp"

#include <algorithm>

#include <fmt/format.h>

namespace klarbox::ScannerSupport {

namespace {

/// What of a folder stays when it is emptied, and so is not to be counted.
std::vector<FileURL> systemsOwnOrNone(const FileURL &folder) {
    try {
        return FS::systemsOwn(folder);
    } catch (const PlatformError &) {
        return {}; // what cannot be listed is not measured either
    }
}

} // namespace

std::optional<std::int64_t> offeredSize(std::span<const FileURL> urls, const ScanContext &context,
                                        std::stop_token stop) {
    const auto isStopped = [&] { return stop.stop_requested(); };
    auto size = DiskUsage::allocatedSize(urls, isStopped);
    for (const auto &url : urls) {
        size -= DiskUsage::allocatedSize(systemsOwnOrNone(url), isStopped);
    }
    return size < 1 || !context.isLargeEnough(size) ? std::nullopt : std::optional(size);
}

std::optional<std::int64_t> offeredSize(const FileURL &url, const ScanContext &context,
                                        std::stop_token stop) {
    return offeredSize(std::span(&url, 1), context, std::move(stop));
}

std::vector<FileURL> childrenOrNone(const FileURL &folder) {
    try {
        return FS::children(folder);
    } catch (const PlatformError &) {
        return {};
    }
}

std::vector<FileURL> foldersOrNone(const FileURL &folder) {
    try {
        return FS::realDirectories(folder);
    } catch (const PlatformError &) {
        return {};
    }
}

std::vector<FileURL> childrenOrIssue(const FileURL &folder, const ScanContext &context,
                                     CategoryScan &scan) {
    try {
        return FS::children(folder);
    } catch (const PlatformError &error) {
        if (FileManager::isMissing(folder)) {
            return {};
        }
        scan.issues.push_back(
            FS::isPermissionError(error)
                ? ScanIssue::needsFullDiskAccess(FS::tildePath(folder, context.home))
                : ScanIssue::failed(error.message()));
        return {};
    }
}

std::vector<KlarboxItem> offeredItems(std::span<const FileURL> entries, const ScanContext &context,
                                      const std::stop_token &stop, const ItemMaker &makeItem) {
    std::vector<KlarboxItem> items;
    for (const auto &entry : entries) {
        if (stop.stop_requested()) {
            break;
        }
        if (const auto size = offeredSize(entry, context, stop)) {
            if (auto item = makeItem(entry, *size)) {
                items.push_back(*std::move(item));
            }
        }
    }
    return items;
}

std::optional<KlarboxTarget> contentsOrItself(const FileURL &entry, FileManager::FinalLink link) {
    try {
        // A link that leads nowhere is still there itself.
        const auto facts = FileManager::facts(entry, link);
        return facts && facts->type == FileManager::FileType::directory
                   ? KlarboxTarget::contents(entry)
                   : KlarboxTarget::item(entry);
    } catch (const PlatformError &) {
        return std::nullopt;
    }
}

CacheTraits cacheTraits(std::string_view name, const ScanContext &context,
                        std::string_view appleNote) {
    const bool isApples = name.starts_with("com.apple.");
    const bool isRunning = context.environment.runningBundleIDs.contains(std::string(name));
    CacheTraits traits{
        .title = context.environment.installedAppName(name).value_or(std::string(name)),
        .tier = isApples ? SafetyTier::review : SafetyTier::safe,
        .note = std::nullopt,
        .isSelectedByDefault = !isApples && !isRunning,
    };
    if (isRunning) {
        traits.note = "The app is running. Quit it first so it doesn't recreate files while "
                      "cleaning.";
    } else if (isApples) {
        traits.note = appleNote;
    }
    return traits;
}

std::optional<PropertyList> dictionary(const FileURL &file) {
    try {
        auto list = PropertyList::parse(FileManager::contents(file, PropertyList::maximumSize));
        return list.kind() == PropertyList::Kind::dictionary ? std::optional(std::move(list))
                                                             : std::nullopt;
    } catch (const PlatformError &) {
        return std::nullopt;
    }
}

std::string firstOf(std::span<const std::string> names, std::size_t limit) {
    return fmt::format("{}{}", fmt::join(names.first(std::min(limit, names.size())), ", "),
                       names.size() > limit ? ", ..." : "");
}

void sortLargestFirst(std::vector<KlarboxItem> &items) {
    std::ranges::stable_sort(items, std::greater{}, &KlarboxItem::size);
}

} // namespace klarbox::ScannerSupport
