#include "KlarboxKit/Scanners/PackageCachesScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include <fmt/format.h>

namespace klarbox {

namespace {

struct Known {
    std::string_view title;
    std::string_view path; ///< relative to the home folder
    SafetyTier tier;
    std::optional<std::string_view> note = {}; ///< while the tool is not busy
    /// What the command line of the running tool contains.
    std::optional<std::string_view> busyHint = {};
};

using enum SafetyTier;
constexpr std::string_view relinked = "Projects relink their packages on the next install.";
constexpr std::string_view gradleDaemon = "GradleDaemon";

constexpr std::array<Known, 29> known{{
    {"npm cache", ".npm/_cacache", safe},
    {"Yarn cache", "Library/Caches/Yarn", safe},
    {"Yarn Berry cache", ".yarn/berry/cache", safe},
    {"pnpm store", "Library/pnpm/store", safe, relinked},
    {"pnpm store", ".local/share/pnpm/store", safe, relinked},
    {"pnpm cache", "Library/Caches/pnpm", safe},
    {"Bun cache", ".bun/install/cache", safe},
    {"uv cache", ".cache/uv", safe},
    {"pip cache", "Library/Caches/pip", safe},
    {"pip cache", ".cache/pip", safe},
    {"Poetry cache", "Library/Caches/pypoetry", safe},
    {"Gradle caches", ".gradle/caches", safe, {}, gradleDaemon},
    {"Gradle daemon logs", ".gradle/daemon", safe, {}, gradleDaemon},
    {"CocoaPods cache", "Library/Caches/CocoaPods", safe},
    {"Go build cache", "Library/Caches/go-build", safe},
    {"Cargo download cache", ".cargo/registry/cache", safe},
    {"Swift Package Manager cache", "Library/Caches/org.swift.swiftpm", safe},
    {"node-gyp headers", "Library/Caches/node-gyp", safe},
    {"Deno cache", "Library/Caches/deno", safe},
    {"Electron downloads", "Library/Caches/electron", safe},
    {"electron-builder cache", "Library/Caches/electron-builder", safe},
    {"Composer cache", "Library/Caches/composer", safe},
    {"Composer cache", ".composer/cache", safe},
    {"JetBrains caches", "Library/Caches/JetBrains", safe},
    {"Expo simulator apps", ".expo/ios-simulator-app-cache", safe},
    {"Playwright browsers", "Library/Caches/ms-playwright", leftover,
     "Test browsers. Playwright downloads them again before the next test run."},
    {"Puppeteer browsers", ".cache/puppeteer", leftover,
     "Test browsers. Puppeteer downloads them again when needed."},
    {"Maven repository", ".m2/repository", review,
     "Every Java dependency you've downloaded. Rebuilding projects downloads them again."},
    {"Hugging Face models", ".cache/huggingface", review,
     "Downloaded AI models. They can be large to download again."},
}};

constexpr std::string_view busyNote =
    "Gradle is running. Stop it first (./gradlew --stop) or a build may fail mid-way.";

constexpr std::string_view npxPath = ".npm/_npx";

std::optional<KlarboxItem> npxItem(const ScanContext &context, const std::stop_token &stop) {
    const auto folder = context.homePath(npxPath);
    auto removable = ScannerSupport::childrenOrNone(folder);
    const auto inUse = std::erase_if(removable, [&](const FileURL &child) {
        return context.environment.isRunning(child.path() + "/");
    });
    const auto size = ScannerSupport::offeredSize(removable, context, stop);
    if (!size) {
        return std::nullopt;
    }
    KlarboxItem item{
        .id = CategoryCatalog::packageCaches().id + ":npx",
        .title = "npx cache",
        .detail = FS::tildePath(folder, context.home),
        .target = KlarboxTarget::items(std::move(removable)),
        .allowedRoot = folder,
        .size = *size,
        .tier = safe,
    };
    if (inUse > 0) {
        item.note = fmt::format("Keeping {} in use by running tools.", inUse);
    }
    return item;
}

KlarboxItem knownItem(const Known &entry, const FileURL &folder, std::int64_t size,
                      const ScanContext &context) {
    const bool isBusy = entry.busyHint && context.environment.isRunning(*entry.busyHint);
    const auto note = isBusy ? busyNote : entry.note;
    return {
        .id = fmt::format("{}:{}", CategoryCatalog::packageCaches().id, entry.path),
        .title = std::string(entry.title),
        .detail = FS::tildePath(folder, context.home),
        .target = KlarboxTarget::contents(folder),
        .allowedRoot = folder,
        .size = size,
        .tier = entry.tier,
        .note = note ? std::optional<std::string>(*note) : std::nullopt,
        .isSelectedByDefault = entry.tier == safe && !isBusy,
    };
}

} // namespace

const CategoryInfo &PackageCachesScanner::info() const {
    return CategoryCatalog::packageCaches();
}

bool PackageCachesScanner::isRelevant(const ScanContext &context) const {
    const auto exists = [&](std::string_view path) {
        return FileManager::exists(context.homePath(path));
    };
    return exists(npxPath) || std::ranges::any_of(known, exists, &Known::path);
}

CategoryScan PackageCachesScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    if (auto item = npxItem(context, stop)) {
        scan.items.push_back(std::move(*item));
    }
    for (const auto &entry : known) {
        if (stop.stop_requested()) {
            break;
        }
        const auto folder = context.homePath(entry.path);
        if (!FS::isRealDirectory(folder)) {
            continue;
        }
        if (const auto size = ScannerSupport::offeredSize(folder, context, stop)) {
            scan.items.push_back(knownItem(entry, folder, *size, context));
        }
    }
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
