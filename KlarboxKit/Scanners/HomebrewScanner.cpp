#include "KlarboxKit/Scanners/HomebrewScanner.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <chrono>
#include <string>

namespace klarbox {

namespace {

std::optional<KlarboxItem> oldVersions(const FileURL &brew, const ScanContext &context,
                                       const std::stop_token &stop) {
    const auto result = context.environment.runner->run({brew, {"cleanup", "-n", "--prune=all"}},
                                                        std::chrono::seconds(180), stop);
    if (!result.succeeded()) {
        return std::nullopt;
    }
    const auto estimate = HomebrewScanner::parseKlarboxEstimate(result.output);
    if (!estimate || !context.isLargeEnough(*estimate)) {
        return std::nullopt;
    }
    return KlarboxItem{
        .id = CategoryCatalog::homebrew().id + ":cleanup",
        .title = "Old versions and downloads",
        .detail = "brew cleanup --prune=all",
        .target = KlarboxTarget::command({brew, {"cleanup", "--prune=all"}}),
        .size = *estimate,
        .isSizeEstimate = true,
        .tier = SafetyTier::safe,
        .note = "Keeps the versions you use now.",
    };
}

/// The package names among the lines; the others are headings, warnings and progress.
std::vector<std::string> packageNames(std::string_view output) {
    std::vector<std::string> names;
    for (const auto line : Text::lines(output)) {
        if (!line.starts_with("==>") && line.find(' ') == std::string_view::npos) {
            names.emplace_back(line);
        }
    }
    return names;
}

std::optional<KlarboxItem> unusedDependencies(const FileURL &brew, const ScanContext &context,
                                              const std::stop_token &stop) {
    const auto result = context.environment.runner->run({brew, {"autoremove", "-n"}},
                                                        std::chrono::seconds(120), stop);
    if (!result.succeeded()) {
        return std::nullopt;
    }
    const auto names = packageNames(result.output);
    if (names.empty()) {
        return std::nullopt;
    }
    const auto cellar = brew.parent().parent().appending("Cellar");
    std::vector<FileURL> folders;
    folders.reserve(names.size());
    for (const auto &name : names) {
        folders.push_back(cellar.appending(name));
    }
    const auto size = DiskUsage::allocatedSize(folders, [&] { return stop.stop_requested(); });
    if (!context.isLargeEnough(size)) {
        return std::nullopt;
    }
    return KlarboxItem{
        .id = CategoryCatalog::homebrew().id + ":autoremove",
        .title = "Unused dependencies",
        .detail = ScannerSupport::firstOf(names, 5),
        .target = KlarboxTarget::command({brew, {"autoremove"}}),
        .size = size,
        .tier = SafetyTier::leftover,
        .note = "Installed as dependencies of tools you've since removed.",
    };
}

} // namespace

const CategoryInfo &HomebrewScanner::info() const {
    return CategoryCatalog::homebrew();
}

bool HomebrewScanner::isRelevant(const ScanContext &context) const {
    return context.environment.locateTool("brew").has_value();
}

CategoryScan HomebrewScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto brew = context.environment.locateTool("brew");
    if (!brew) {
        return scan;
    }
    // One after the other: Homebrew locks what it works on.
    for (const auto &find : {oldVersions, unusedDependencies}) {
        if (auto item = find(*brew, context, stop)) {
            scan.items.push_back(std::move(*item));
        }
    }
    return scan;
}

} // namespace klarbox
