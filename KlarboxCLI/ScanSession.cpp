#include "KlarboxCLI/ScanSession.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/EnvironmentFile.hpp"
#include "KlarboxCLI/LiveEnvironment.hpp"
#include "KlarboxCLI/SettingsStore.hpp"
#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Commands/SizeText.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/FileStatus.hpp"
#include "KlarboxKit/Platform/PlacesOnTheWay.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanners/DefaultScanners.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/Exclusions.hpp"
#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

constexpr std::size_t largestEnvironmentFile = 64 << 20;

/// Refuses a folder that would look empty to every scanner: what is not there, or may not be
/// entered.
void requireFolder(std::string_view name, const FileURL &url) {
    const auto shown = Text::visible(url.path());
    if (!FileManager::isDirectory(url)) {
        throw UsageError(fmt::format("{}: {} is not a folder that this user can see", name, shown));
    }
    if (!FileManager::isDirectory(url.appending("."))) {
        throw UsageError(fmt::format("{}: {} may not be entered by this user", name, shown));
    }
}

bool isSameFolder(const std::string &a, const std::string &b) {
    struct stat ofA {};
    struct stat ofB {};
    return ::stat(a.c_str(), &ofA) == 0 && ::stat(b.c_str(), &ofB) == 0 &&
           ofA.st_dev == ofB.st_dev && ofA.st_ino == ofB.st_ino;
}

/// The folder that an option names. A path through ".." is resolved on the disk, as a shell would:
/// folding it as text would lead elsewhere when a link comes before it.
FileURL folder(std::string_view option, const std::string &path) {
    FileURL url(path, true);
    requireFolder(option, url);
    // What lies in a container is reached through the root of one of its processes, and has no
    // other path here: resolved, its paths are those of this machine's own files.
    const auto resolved = FileManager::realPath(url.path());
    if (!resolved || !isSameFolder(url.path(), *resolved)) {
        throw UsageError(
            fmt::format("{}: {} leads into a system of its own, whose paths mean other "
                        "files here",
                        option, Text::visible(path)));
    }
    if ((url.path() + "/").find("/../") != std::string::npos) {
        return FileURL(*resolved, true);
    }
    return url.standardized();
}

/// The disk to look at. One that is this machine's own, whatever links lead to it, is known by the
/// name that everything of this machine has.
FileURL startupDisk(const std::string &path) {
    auto url = folder("--disk", path);
    return FileManager::realPath(url.path()) == "/" ? FileURL("/", true) : url;
}

/// The home folder that is meant when none is named: the person's own on this machine's disk, the
/// only one of any other. Somebody's own home beside the disk of another is not what they ask for.
FileURL homeOn(const FileURL &disk) {
    if (disk == FileURL("/")) {
        return FileManager::homeDirectory();
    }
    const auto users = disk.appending("Users", true);
    std::vector<FileURL> homes;
    std::vector<std::string> names;
    for (const auto &entry : ScannerSupport::childrenOrNone(users)) {
        const auto name = entry.lastComponent();
        if (FileManager::type(entry) == FileManager::FileType::directory &&
            Text::lowercased(name) != "shared" && !name.starts_with('.')) {
            homes.push_back(entry);
            names.push_back(Text::visible(name));
        }
    }
    if (homes.size() != 1) {
        throw UsageError(
            fmt::format("--disk: which home folder is meant? {} holds {}; name one with --home",
                        Text::visible(users.path()),
                        homes.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "))));
    }
    return homes.front();
}

ScannerList scannersNamed(const std::vector<std::string> &categories, ScannerList all) {
    for (const auto &id : categories) {
        if (std::ranges::none_of(all,
                                 [&](const auto &scanner) { return scanner->info().id == id; })) {
            throw UsageError(fmt::format("unknown category '{}'; the categories are {}",
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
            throw UsageError(fmt::format("settings: excludedPaths: '{}' names no category; the "
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
        throw UsageError(fmt::format("environment file {}: {}", Text::visible(file),
                                     Text::visible(error.message())));
    }
}

/// What is going on during a scan, drawn whenever it changes.
class ScanMeter {
public:
    explicit ScanMeter(ProgressLine &line) : line_(line) {}

    void began(const CategoryInfo &info) {
        const std::lock_guard lock(mutex_);
        running_.push_back(info.title);
        draw();
    }

    void ended(const CategoryScan &scan) {
        const std::lock_guard lock(mutex_);
        std::erase(running_, scan.info.title);
        found_ = saturatingAdd(found_, scan.totalSize());
        draw();
    }

    void report(const ScanProgress &progress) {
        const std::lock_guard lock(mutex_);
        completed_ = progress.completed;
        total_ = progress.total;
        draw();
    }

private:
    void draw() {
        line_.show(fmt::format("Scanning: {} of {} done, {} found{}{}", completed_, total_,
                               DisplayText::size(found_), running_.empty() ? "" : " · ",
                               fmt::join(running_, ", ")));
    }

    ProgressLine &line_;
    std::mutex mutex_;
    std::vector<std::string> running_;
    std::int64_t completed_ = 0;
    std::int64_t total_ = 0;
    std::int64_t found_ = 0;
};

/// A scanner whose beginning and end are seen by a meter.
class MeteredScanner final : public CategoryScanner {
public:
    MeteredScanner(std::shared_ptr<const CategoryScanner> base, ScanMeter &meter)
        : base_(std::move(base)),
          meter_(meter) {}

    const CategoryInfo &info() const override { return base_->info(); }
    bool isRelevant(const ScanContext &context) const override {
        return base_->isRelevant(context);
    }
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override {
        meter_.began(info());
        auto scan = base_->scan(context, std::move(stop));
        meter_.ended(scan);
        return scan;
    }

private:
    std::shared_ptr<const CategoryScanner> base_;
    ScanMeter &meter_;
};

/// Whether a folder belongs to this user or to root, so that what lies in it is theirs to answer
/// for.
bool isTrusted(const FileURL &folder) {
    struct stat status {};
    return ::stat(folder.path().c_str(), &status) == 0 &&
           (status.st_uid == 0 || status.st_uid == ::geteuid());
}

bool isMountPoint(const FileURL &folder) {
    const auto path = SafetyGuard::canonicalPath(folder.path());
    const auto status = FileStatus::of(AT_FDCWD, path.c_str());
    return status && status->isMountRoot;
}

/// Where tools are, by their names.
using Locator = decltype(ScanEnvironment::locateTool);

/// Runs no program that lies in one of some folders, or that a link there leads to: what others put
/// there would run as whoever only wanted to look. But a program that the person named is one that
/// the person means.
class CautiousCommandRunner final : public CommandRunning {
public:
    /// `named` is empty when no programs were named.
    CautiousCommandRunner(std::shared_ptr<const CommandRunning> base,
                          const std::vector<FileURL> &folders, Locator named)
        : base_(std::move(base)),
          named_(std::move(named)) {
        for (const auto &folder : folders) {
            folders_.push_back(SafetyGuard::canonicalPath(folder.path()));
        }
    }

    CommandResult run(const CommandAction &action, std::chrono::nanoseconds timeout,
                      std::stop_token stop) const override {
        const auto &written = action.executable;
        if (folders_.empty() || (named_ && named_(written.lastComponent()) == written)) {
            return base_->run(action, timeout, std::move(stop));
        }
        const auto isForeign = [&](const std::string &place) {
            return std::ranges::any_of(folders_, [&](const std::string &folder) {
                return SafetyGuard::isInside(place, folder);
            });
        };
        if (std::ranges::any_of(placesOnTheWay(written), isForeign)) {
            return {CommandResult::notStarted,
                    fmt::format("“{}” is somebody else's program.", Text::visible(written.path()))};
        }
        // By the path that was found, as tools find what belongs to them by their own path. No link
        // on the way is anybody else's to change.
        return base_->run(action, timeout, std::move(stop));
    }

private:
    std::shared_ptr<const CommandRunning> base_;
    std::vector<std::string> folders_;
    Locator named_;
};

} // namespace

std::int64_t parseMinimumSize(const std::string &text) {
    std::int64_t plain = 0;
    const auto *end = text.data() + text.size();
    if (const auto [stop, error] = std::from_chars(text.data(), end, plain);
        error == std::errc() && stop == end && plain >= 0) {
        return plain;
    }
    const auto bytes = SizeText::bytes(text, 1000);
    if (!bytes || *bytes < 0) {
        throw UsageError(fmt::format("--minimum-size: '{}' is not a size such as 0, 500kB or 1MB",
                                     Text::visible(text)));
    }
    return *bytes;
}

ScanSession::ScanSession(const ScanOptions &options)
    : disk_(startupDisk(options.disk)),
      roots_(PrivilegedRoots::below(disk_)),
      scanners_(scannersNamed(options.categories,
                              defaultScanners(roots_, disk_.appending("Volumes", true), disk_))),
      context_{
          .home = options.home.empty() ? homeOn(disk_) : folder("--home", options.home),
          .settings = withKnownCategories(
              options.settingsFile.empty()
                  ? SettingsStore::loadOrFirstRun(SettingsStore::defaultLocation())
                  : SettingsStore::load(FileURL(options.settingsFile))),
          .environment = {},
          .minimumSize = parseMinimumSize(options.minimumSize),
          .keptBack = std::make_shared<KeptBack>(),
      } {
    requireFolder("the home folder", context_.home);
    applications_ = applicationsFor(context_.home, disk_);
    auto live = liveEnvironment(context_.home, applications_);
    const auto search = std::exchange(live.locateTool, nullptr);
    context_.environment = environment(options.environmentFile, std::move(live));
    const auto named = context_.environment.locateTool;
    if (!named) {
        context_.environment.locateTool = search;
    }
    auto foreign = foreignFolders();
    // Tools are looked for there too.
    if (const auto own = FileManager::homeDirectory(); !isTrusted(own)) {
        foreign.push_back(own);
    }
    context_.environment.runner = std::make_shared<CautiousCommandRunner>(
        std::move(context_.environment.runner), foreign, named);
}

std::vector<FileURL> ScanSession::foreignFolders() const {
    std::vector<FileURL> folders;
    if (!isTrusted(context_.home)) {
        folders.push_back(context_.home);
    }
    // Who owns a file on a disk from elsewhere is whoever has that number there.
    if (disk_ != FileURL("/") && (!isTrusted(disk_) || isMountPoint(disk_))) {
        folders.push_back(disk_);
    }
    return folders;
}

std::vector<FileURL> ScanSession::enclosures() const {
    auto folders = foreignFolders();
    if (disk_ != FileURL("/")) {
        // This person's too: its links were made on another machine.
        folders.push_back(disk_);
    }
    std::ranges::copy(ScannerSupport::childrenOrNone(disk_.appending("Volumes")),
                      std::back_inserter(folders));
    return folders;
}

std::vector<std::string> ScanSession::keptBack() const {
    std::vector<std::string> parts;
    const auto add = [&](std::int64_t findings, const std::string &why) {
        if (findings > 0) {
            parts.push_back(DisplayText::count(static_cast<std::size_t>(findings), "finding") +
                            why);
        }
    };
    const auto &counts = *context_.keptBack;
    add(counts.byExclusions, " by the exclusions in your settings");
    add(counts.bySize,
        fmt::format(" smaller than {} ({} together)", DisplayText::size(context_.minimumSize),
                    DisplayText::size(counts.bytesBySize)));
    if (parts.empty()) {
        return {};
    }
    return {fmt::format("Kept back: {}.", fmt::join(parts, ", "))};
}

std::vector<std::string> ScanSession::remarks(const std::vector<CategoryScan> &scans) const {
    std::vector<KlarboxItem> items;
    for (const auto &scan : scans) {
        items.insert(items.end(), scan.items.begin(), scan.items.end());
    }
    auto all = keptBack();
    std::ranges::move(obstacles().remarks(items), std::back_inserter(all));
    if (items.empty()) {
        all.emplace_back("To see a scan that finds something, of a make-believe Mac: \"./dev run "
                         "demo\" in the folder of Klarbox's sources.");
    }
    const bool judgesContainers = std::ranges::any_of(scans, [](const CategoryScan &scan) {
        return scan.info == CategoryCatalog::orphanedContainers();
    });
    if (judgesContainers && applications_->hasTakenAllForInstalled()) {
        all.emplace_back("Which applications are installed is not known, as there is no folder of "
                         "applications: each counts as installed. Name the Mac's disk with --disk "
                         "to find containers of removed ones.");
    }
    return all;
}

std::vector<CategoryScan> ScanSession::scan(ProgressLine &progress, std::stop_token stop) const {
    ScanMeter meter(progress);
    ScannerList metered;
    for (const auto &scanner : scanners_) {
        metered.push_back(std::make_shared<MeteredScanner>(scanner, meter));
    }
    auto scans = ScanCoordinator(std::move(metered))
                     .scan(
                         context_, [&](const ScanProgress &report) { meter.report(report); },
                         std::move(stop));
    progress.clear();
    return scans;
}

} // namespace klarbox
