#include "KlarboxKit/Scanners/ProjectArtifactsScanner.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ArtifactRule.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <unordered_set>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Folders as deep as this below a project are judged, but not looked into.
constexpr int deepestJudged = 8;

constexpr ArtifactRule installedPackages{
    SafetyTier::review,
    "Reinstall with your package manager (npm, yarn, pnpm) to work on it again."};

constexpr std::array<std::string_view, 4> nativeBuildPaths{"android/build", "android/.cxx",
                                                           "android/.gradle", "ios/build"};

/// How recently someone worked on a project.
struct Activity {
    std::int64_t days; ///< whole days since the last change
    bool isStale;

    static Activity of(const FileURL &project, const ScanContext &context);
    std::string description() const;
};

/// When someone last worked on a project; nothing when nothing in it tells. Throws when something
/// that would tell cannot be looked at.
std::optional<Date> latestChange(const FileURL &project) {
    std::optional<Date> latest;
    const auto consider = [&](const FileURL &url) {
        if (const auto facts = FileManager::facts(url)) {
            latest = std::max(latest, std::optional(facts->modified));
        }
    };
    for (const auto &entry : FS::children(project)) {
        const auto name = entry.lastComponent();
        if (name != ".git" && !ArtifactRule::isArtifactName(name)) {
            consider(entry);
        }
    }
    // A repository changes itself with every look that tools take; these two with work. Asked for
    // by name, because a disk that does not know letter case may list it as ".GIT".
    consider(project.appending(".git/logs/HEAD"));
    consider(project.appending(".git/index"));
    if (!latest) {
        consider(project);
    }
    return latest;
}

Activity Activity::of(const FileURL &project, const ScanContext &context) {
    std::int64_t days = 0;
    try {
        const auto latest = latestChange(project);
        days = latest ? context.daysSince(*latest) : 0;
    } catch (const PlatformError &) {
        // It may be what somebody works on right now.
    }
    return {.days = days, .isStale = days > context.settings.staleProjectDays};
}

std::string Activity::description() const {
    if (isStale) {
        return fmt::format("No changes in {} days.", days);
    }
    return fmt::format("Active project (changed {}).",
                       days == 0 ? "today" : fmt::format("{} days ago", days));
}

/// Looks through one project.
class ProjectWalk {
public:
    ProjectWalk(const FileURL &project, const ScanContext &context, const std::stop_token &stop)
        : project_(project),
          context_(context),
          stop_(stop) {}

    std::vector<KlarboxItem> run() {
        walk(project_, 0);
        return std::move(items_);
    }

private:
    void walk(const FileURL &folder, int depth);
    void add(const FileURL &folder, const ArtifactRule &rule);
    void addNativeBuildOutput(const FileURL &nodeModules);
    const Activity &activity();

    const FileURL &project_;
    const ScanContext &context_;
    const std::stop_token &stop_;
    std::vector<KlarboxItem> items_;
    std::optional<Activity> activity_;
};

const Activity &ProjectWalk::activity() {
    if (!activity_) {
        activity_ = Activity::of(project_, context_);
    }
    return *activity_;
}

void ProjectWalk::walk(const FileURL &folder, int depth) {
    if (depth >= deepestJudged || stop_.stop_requested()) {
        return;
    }
    for (const auto &entry : ScannerSupport::foldersOrNone(folder)) {
        const auto name = entry.lastComponent();
        if (name == ".git") {
            continue;
        }
        if (name == "node_modules") {
            if (FileManager::type(folder.appending("package.json"))) {
                addNativeBuildOutput(entry);
                if (context_.settings.includeNodeModules) {
                    add(entry, installedPackages);
                }
            }
        } else if (const auto rule = ArtifactRule::match(name, entry, folder)) {
            add(entry, *rule);
        } else if (!name.starts_with('.')) {
            walk(entry, depth + 1);
        }
    }
}

void ProjectWalk::add(const FileURL &folder, const ArtifactRule &rule) {
    const auto size = ScannerSupport::offeredSize(folder, context_);
    if (!size) {
        return;
    }
    KlarboxItem item{
        .id = "artifacts:" + folder.path(),
        .title = std::string(folder.lastComponent()),
        .detail = FS::tildePath(folder, context_.home),
        .target = KlarboxTarget::item(folder),
        .allowedRoot = project_,
        .size = *size,
        .tier = rule.tier,
        .note = std::string(rule.note),
        .group = std::string(project_.lastComponent()),
    };
    if (rule.tier == SafetyTier::review) {
        *item.note += " " + activity().description();
        item.isSelectedByDefault = activity().isStale;
    }
    items_.push_back(std::move(item));
}

void ProjectWalk::addNativeBuildOutput(const FileURL &nodeModules) {
    std::vector<FileURL> found;
    const auto look = [&](const FileURL &package) {
        for (const auto path : nativeBuildPaths) {
            auto folder = package.appending(path);
            if (FS::isRealDirectory(folder)) {
                found.push_back(std::move(folder));
            }
        }
    };
    for (const auto &entry : ScannerSupport::childrenOrNone(nodeModules)) {
        if (entry.lastComponent().starts_with('@')) {
            // A scope may be a link; whether what is in it may be removed is the cleaner's to say.
            std::ranges::for_each(ScannerSupport::foldersOrNone(entry), look);
        } else if (!entry.lastComponent().starts_with('.') && FS::isRealDirectory(entry)) {
            look(entry);
        }
    }
    const auto size = ScannerSupport::offeredSize(found, context_);
    if (!size) {
        return;
    }
    const auto count = found.size();
    items_.push_back({
        .id = "artifacts:native:" + nodeModules.path(),
        .title = "Native build files in node_modules",
        .detail = FS::tildePath(nodeModules, context_.home),
        .target = KlarboxTarget::items(std::move(found)),
        .allowedRoot = project_,
        .size = *size,
        .tier = SafetyTier::safe,
        .note = fmt::format(
            "{} Android/iOS build folders inside packages. The packages stay installed.", count),
        .group = std::string(project_.lastComponent()),
    });
}

/// The project roots that are folders, each once however its name is written.
std::vector<FileURL> projectRoots(const ScanContext &context) {
    std::vector<FileURL> roots;
    std::unordered_set<std::string> seen;
    for (const auto &path : context.settings.projectRoots) {
        const auto root = context.expand(path);
        if (FS::isRealDirectory(root) &&
            seen.insert(Text::foldedPath(root.standardized().path())).second) {
            roots.push_back(root);
        }
    }
    return roots;
}

} // namespace

const CategoryInfo &ProjectArtifactsScanner::info() const {
    return CategoryCatalog::projectArtifacts();
}

bool ProjectArtifactsScanner::isRelevant(const ScanContext &context) const {
    return !projectRoots(context).empty();
}

CategoryScan ProjectArtifactsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    for (const auto &root : projectRoots(context)) {
        for (const auto &project : ScannerSupport::foldersOrNone(root)) {
            if (!project.lastComponent().starts_with('.') && !stop.stop_requested()) {
                std::ranges::move(ProjectWalk(project, context, stop).run(),
                                  std::back_inserter(scan.items));
            }
        }
    }
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
