#include "KlarboxApp/Scan/ScanSession.hpp"

#include "KlarboxApp/Environment/EnvironmentFile.hpp"
#include "KlarboxApp/Environment/LiveEnvironment.hpp"
#include "KlarboxApp/InputError.hpp"
#include "KlarboxApp/Scan/CautiousCommandRunner.hpp"
#include "KlarboxApp/Scan/ForeignFolders.hpp"
#include "KlarboxApp/Scan/Locations.hpp"
#include "KlarboxApp/Settings/SettingsStore.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanners/DefaultScanners.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/Exclusions.hpp"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

constexpr std::size_t largestEnvironmentFile = 64 << 20;

ScannerList scannersNamed(const std::vector<std::string> &categories, ScannerList all) {
    for (const auto &id : categories) {
        if (std::ranges::none_of(all,
                                 [&](const auto &scanner) { return scanner->info().id == id; })) {
            throw InputError(fmt::format("unknown category '{}'; the categories are {}",
                                         Text::visible(id),
                                         fmt::join(CategoryCatalog::identifiers(), ", ")));
        }
    }
    if (!categories.empty()) {
        std::erase_if(all, [&](const auto &scanner) {
            return std::ranges::find(categories, scanner->info().id) == categories.end();
        });
    }
    return all;
}

/// Refuses settings that exclude a category which does not exist: whoever wrote its name wrong
/// wants one to be left alone.
ScanSettings withKnownCategories(ScanSettings settings) {
    const auto known = CategoryCatalog::identifiers();
    for (const auto &entry : settings.excludedPaths) {
        if (entry.starts_with(Exclusions::categoryPrefix) &&
            std::ranges::find(known, entry.substr(Exclusions::categoryPrefix.size())) ==
                known.end()) {
            throw InputError(fmt::format("settings: excludedPaths: '{}' names no category; the "
                                         "categories are {}",
                                         Text::visible(entry), fmt::join(known, ", ")));
        }
    }
    return settings;
}

ScanEnvironment environment(const std::string &file, ScanEnvironment live) {
    if (file.empty()) {
        return live;
    }
    try {
        return environmentFromFile(FileManager::contents(FileURL(file), largestEnvironmentFile),
                                   std::move(live));
    } catch (const PlatformError &error) {
        throw InputError(fmt::format("environment file {}: {}", Text::visible(file),
                                     Text::visible(error.message())));
    }
}

} // namespace

ScanSession::ScanSession(const ScanRequest &request)
    : disk_(Locations::startupDisk(request.disk)),
      roots_(PrivilegedRoots::below(disk_)),
      scanners_(scannersNamed(request.categories,
                              defaultScanners(roots_, disk_.appending("Volumes", true), disk_))),
      context_{
          .home = Locations::home(request.home, disk_),
          .settings = withKnownCategories(
              request.settingsFile.empty()
                  ? SettingsStore::loadOrFirstRun(SettingsStore::defaultLocation())
                  : SettingsStore::load(FileURL(request.settingsFile))),
          .environment = {},
          .minimumSize = request.minimumSize,
          .keptBack = std::make_shared<KeptBack>(),
      } {
    applications_ = applicationsFor(context_.home, disk_);
    auto live = liveEnvironment(context_.home, applications_);
    const auto search = std::exchange(live.locateTool, nullptr);
    context_.environment = environment(request.environmentFile, std::move(live));
    const auto named = context_.environment.locateTool;
    if (!named) {
        context_.environment.locateTool = search;
    }
    context_.environment.runner = std::make_shared<CautiousCommandRunner>(
        std::move(context_.environment.runner),
        ForeignFolders(context_.home, disk_).withForeignPrograms(), named);
}

std::vector<FileURL> ScanSession::enclosures() const {
    return ForeignFolders(context_.home, disk_).enclosures();
}

bool ScanSession::hasTakenAllForInstalled(const std::vector<CategoryScan> &scans) const {
    return applications_->hasTakenAllForInstalled() &&
           std::ranges::any_of(scans, [](const CategoryScan &scan) {
               return scan.info == CategoryCatalog::orphanedContainers();
           });
}

std::vector<CategoryScan> ScanSession::scan(const ScanWatch &watch, std::stop_token stop) const {
    ScanMeter meter(watch);
    return ScanCoordinator(scanners_).scan(
        context_, [&](const ScanProgress &progress) { meter.note(progress); }, std::move(stop),
        [&](const ScanEvent &event) { meter.note(event); });
}

} // namespace klarbox
