#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>

namespace klarbox {

namespace {

constexpr std::array<std::string_view, 17> developerCacheNames{
    "Homebrew",
    "Yarn",
    "pip",
    "pypoetry",
    "CocoaPods",
    "ms-playwright",
    "node-gyp",
    "go-build",
    "JetBrains",
    "org.swift.swiftpm",
    "pnpm",
    "deno",
    "electron",
    "electron-builder",
    "typescript",
    "Cypress",
    "com.github.xcpretty",
};

} // namespace

const CategoryInfo &UserCachesScanner::info() const {
    return CategoryCatalog::userCaches();
}

CategoryScan UserCachesScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Library/Caches");
    auto entries = ScannerSupport::childrenOrIssue(root, context, scan);
    std::erase_if(entries, [&](const FileURL &entry) {
        const auto name = entry.lastComponent();
        return std::ranges::count(developerCacheNames, name) > 0 || name == ownBundleID_;
    });
    scan.items = ScannerSupport::offeredItems(
        entries, context, stop,
        [&](const FileURL &entry, std::int64_t size) -> std::optional<KlarboxItem> {
            auto target = ScannerSupport::contentsOrItself(entry, FileManager::FinalLink::followed);
            if (!target) {
                return std::nullopt;
            }
            const std::string name(entry.lastComponent());
            auto traits = ScannerSupport::cacheTraits(
                name, context,
                "Used by macOS and Apple apps. Usually rebuilt, but some may sign you out or reset "
                "state.");
            return KlarboxItem{
                .id = info().id + ":" + name,
                .title = std::move(traits.title),
                .detail = FS::tildePath(entry, context.home),
                .target = *std::move(target),
                .allowedRoot = root,
                .size = size,
                .tier = traits.tier,
                .note = std::move(traits.note),
                .isSelectedByDefault = traits.isSelectedByDefault,
            };
        });
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
