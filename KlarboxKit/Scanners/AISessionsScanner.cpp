#include "KlarboxKit/Scanners/AISessionsScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace klarbox {

namespace {

struct Tool {
    std::string_view title;
    std::string_view path; ///< relative to the home folder
};

constexpr std::array<Tool, 3> tools{{
    {"Claude Code sessions", ".claude/projects"},
    {"Codex sessions", ".codex/sessions"},
    {"Codex archived sessions", ".codex/archived_sessions"},
}};

constexpr std::chrono::days ageLimit{60};
constexpr int deepestSearched = 7;

/// Appends what below `folder` is no folder itself and was last modified before `cutoff`.
void collect(const FileURL &folder, Date cutoff, int depth, std::vector<FileURL> &files) {
    if (depth > deepestSearched) {
        return;
    }
    for (auto &child : ScannerSupport::childrenOrNone(folder)) {
        if (FS::isRealDirectory(child)) {
            collect(child, cutoff, depth + 1, files);
        } else if (const auto date = FS::modificationDate(child); date && *date < cutoff) {
            files.push_back(std::move(child));
        }
    }
}

} // namespace

const CategoryInfo &AISessionsScanner::info() const {
    return CategoryCatalog::aiSessions();
}

bool AISessionsScanner::isRelevant(const ScanContext &context) const {
    return std::ranges::any_of(
        tools, [&](const Tool &tool) { return FileManager::exists(context.homePath(tool.path)); });
}

CategoryScan AISessionsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    for (const auto &tool : tools) {
        const auto folder = context.homePath(tool.path);
        std::vector<FileURL> files;
        collect(folder, context.environment.now - ageLimit, 0, files);
        const auto size = ScannerSupport::offeredSize(files, context, stop);
        if (!size) {
            continue;
        }
        const auto count = files.size();
        scan.items.push_back({
            .id = fmt::format("{}:{}", info().id, tool.path),
            .title = std::string(tool.title),
            .detail = FS::tildePath(folder, context.home),
            .target = KlarboxTarget::items(std::move(files)),
            .allowedRoot = folder,
            .size = *size,
            .tier = SafetyTier::review,
            .note = fmt::format("{} log file{} older than {} days. You'd lose the ability to "
                                "resume those sessions.",
                                count, count == 1 ? "" : "s", ageLimit.count()),
        });
    }
    return scan;
}

} // namespace klarbox
