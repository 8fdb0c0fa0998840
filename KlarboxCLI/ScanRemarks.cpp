#include "KlarboxCLI/ScanRemarks.hpp"

#include "KlarboxApp/Clean/Selection.hpp"
#include "KlarboxCLI/DisplayText.hpp"

#include <algorithm>
#include <iterator>
#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

struct Wording {
    std::string_view what;
    std::string_view remedy;
};

Wording wording(CleanObstacles::Kind kind) {
    switch (kind) {
    case CleanObstacles::Kind::readOnlyDisk:
        return {"on a disk that is mounted read-only", "Mount it writable to clean them."};
    case CleanObstacles::Kind::missingHelper:
        return {"of the system", "The Klarbox helper is not installed: install it, or run klarbox "
                                 "with sudo, to clean them."};
    case CleanObstacles::Kind::onlyRoot:
        return {"of the system of another disk", "Run klarbox with sudo to clean them."};
    }
    return {};
}

/// What the exclusions and the minimum size kept back.
std::vector<std::string> keptBack(const ScanContext &context) {
    std::vector<std::string> parts;
    const auto add = [&](std::int64_t findings, const std::string &why) {
        if (findings > 0) {
            parts.push_back(DisplayText::count(static_cast<std::size_t>(findings), "finding") +
                            why);
        }
    };
    const auto &counts = *context.keptBack;
    add(counts.byExclusions, " by the exclusions in your settings");
    add(counts.bySize,
        fmt::format(" smaller than {} ({} together)", DisplayText::size(context.minimumSize),
                    DisplayText::size(counts.bytesBySize)));
    if (parts.empty()) {
        return {};
    }
    return {fmt::format("Kept back: {}.", fmt::join(parts, ", "))};
}

} // namespace

std::vector<std::string>
obstacleRemarks(const std::map<CleanObstacles::Kind, CleanObstacles::Sum> &sums) {
    std::vector<std::string> sentences;
    for (const auto &[kind, sum] : sums) {
        const auto &[what, remedy] = wording(kind);
        sentences.push_back(fmt::format("Not cleanable here: {}, {}, {}. {}",
                                        DisplayText::count(sum.count, "item"),
                                        DisplayText::size(sum.bytes), what, remedy));
    }
    return sentences;
}

std::vector<std::string> scanRemarks(const ScanSession &session,
                                     const std::vector<CategoryScan> &scans) {
    const auto items = Selection::items(scans);
    auto all = keptBack(session.context());
    std::ranges::move(obstacleRemarks(session.obstacles().sums(items)), std::back_inserter(all));
    if (items.empty()) {
        all.emplace_back("To see a scan that finds something, of a make-believe Mac: \"./dev run "
                         "demo\" in the folder of Klarbox's sources.");
    }
    if (session.hasTakenAllForInstalled(scans)) {
        all.emplace_back("Which applications are installed is not known, as there is no folder of "
                         "applications: each counts as installed. Name the Mac's disk with --disk "
                         "to find containers of removed ones.");
    }
    return all;
}

} // namespace klarbox
