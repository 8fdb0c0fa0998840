#include "KlarboxKit/Scanners/SystemLogsScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>
#include <iterator>

namespace klarbox {

namespace {

constexpr std::array<std::string_view, 5> rotatedExtensions{"gz", "bz2", "xz", "zip", "old"};

/// Whether a log is finished: a rotated one, which ends in a number or is packed.
bool isRotated(const FileURL &entry) {
    const auto extension = entry.extension();
    const bool isNumber =
        !extension.empty() && extension.find_first_not_of("0123456789") == std::string_view::npos;
    return (isNumber || std::ranges::count(rotatedExtensions, extension) > 0) &&
           !FS::isRealDirectory(entry);
}

std::optional<KlarboxItem> logItem(const FileURL &entry, const FileURL &root, std::int64_t size) {
    auto target = ScannerSupport::contentsOrItself(entry, FileManager::FinalLink::itself);
    if (!target) {
        return std::nullopt;
    }
    return KlarboxItem{
        .id = CategoryCatalog::systemLogs().id + ":" + entry.path(),
        .title = std::string(entry.lastComponent()),
        .detail = entry.path(),
        .target = *std::move(target),
        .allowedRoot = root,
        .size = size,
        .tier = SafetyTier::safe,
        .removalPolicy = RemovalPolicy::permanentOnly,
        .requiresPrivileges = true,
    };
}

} // namespace

const CategoryInfo &SystemLogsScanner::info() const {
    return CategoryCatalog::systemLogs();
}

CategoryScan SystemLogsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    auto libraryEntries = ScannerSupport::childrenOrNone(libraryLogs_);
    // Crash reports have a category of their own.
    std::erase(libraryEntries, libraryLogs_.appending("DiagnosticReports"));
    scan.items = ScannerSupport::offeredItems(libraryEntries, context, stop,
                                              [&](const FileURL &entry, std::int64_t size) {
                                                  return logItem(entry, libraryLogs_, size);
                                              });

    const auto systemEntries = ScannerSupport::childrenOrNone(systemLogs_);
    std::ranges::move(
        ScannerSupport::offeredItems(
            systemEntries, context, stop,
            [&](const FileURL &entry, std::int64_t size) {
                auto item = logItem(entry, systemLogs_, size);
                if (item && !isRotated(entry)) {
                    item->tier = SafetyTier::review;
                    item->note = "A system service may still be writing here. Removing it is "
                                 "harmless, but the space may only come back after the service "
                                 "restarts.";
                    item->isSelectedByDefault = false;
                }
                return item;
            }),
        std::back_inserter(scan.items));
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
