#include "KlarboxCLI/DisplayText.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <array>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox::DisplayText {

namespace {

/// What a tool or a file system said, on one line that nobody minds reading.
std::string oneLine(std::string_view message) {
    constexpr std::size_t longest = 400;
    const auto joined = fmt::format("{}", fmt::join(Text::lines(message), "; "));
    return Text::middleTruncated(Text::visible(joined), longest);
}

std::string padding(std::string_view text, std::size_t width) {
    const auto used = Text::displayWidth(text);
    return std::string(used < width ? width - used : 0, ' ');
}

} // namespace

std::string size(std::int64_t bytes) {
    struct Unit {
        double bytes;
        int decimals;
        std::string_view name;
    };
    static constexpr std::array units{
        Unit{1e3, 1, "kB"},  Unit{1e6, 1, "MB"},  Unit{1e9, 2, "GB"},
        Unit{1e12, 2, "TB"}, Unit{1e15, 2, "PB"}, Unit{1e18, 2, "EB"},
    };
    if (bytes > -1000 && bytes < 1000) {
        return fmt::format("{} B", bytes);
    }
    for (std::size_t i = 0;; ++i) {
        const double value = static_cast<double>(bytes) / units[i].bytes;
        auto text = fmt::format("{:.{}f} {}", value, units[i].decimals, units[i].name);
        // Rounding may carry into the next unit: 999.96 MB is shown as 1.00 GB.
        if (i + 1 == units.size() || !text.starts_with("1000.")) {
            if (value < 1000) {
                return text;
            }
        }
    }
}

std::string size(const KlarboxItem &item) {
    return (item.isSizeEstimate ? "~" : "") + size(item.size);
}

std::string count(std::size_t number, std::string_view noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::string_view tier(SafetyTier tier) {
    switch (tier) {
    case SafetyTier::safe:
        return "safe";
    case SafetyTier::leftover:
        return "leftover";
    case SafetyTier::review:
        return "review";
    }
    return "";
}

std::string_view section(ScanSection section) {
    switch (section) {
    case ScanSection::system:
        return "System";
    case ScanSection::developer:
        return "Developer";
    case ScanSection::leftovers:
        return "Leftovers";
    }
    return "";
}

std::string issue(const ScanIssue &issue) {
    return std::visit(
        overloaded{
            [](const ScanIssue::NeedsFullDiskAccess &needs) {
                return fmt::format("{} could not be read because the permission is missing. On a "
                                   "Mac, give this terminal Full Disk Access and scan again.",
                                   Text::visible(needs.path));
            },
            [](const ScanIssue::Failed &failed) { return Text::visible(failed.message); },
        },
        issue.value());
}

std::string_view violation(SafetyViolation violation) {
    switch (violation) {
    case SafetyViolation::notFound:
        return "it is no longer there, or this user may not look there";
    case SafetyViolation::isRoot:
        return "it is a top folder that must stay";
    case SafetyViolation::notInsideRoot:
        return "it lies outside the folder it belongs to";
    case SafetyViolation::symlinkEscape:
        return "a link leads out of the folder it belongs to";
    case SafetyViolation::protectedLocation:
        return "it is a protected folder";
    case SafetyViolation::insideGitDirectory:
        return "it is part of a Git repository's data";
    }
    return "";
}

std::string result(const CleanResult &result) {
    return std::visit(
        overloaded{
            [](const CleanResult::Partial &partial) {
                return "partly removed: " + oneLine(partial.message);
            },
            [](const CleanResult::Failed &failed) {
                // Not "not removed": a helper that did not answer in time may yet remove it.
                return "failed: " + oneLine(failed.message);
            },
            [](const CleanResult::Refused &refused) {
                return fmt::format("refused: {}", violation(refused.violation));
            },
            [](const CleanResult::Removed &) { return std::string("deleted"); },
            [](const CleanResult::MovedToTrash &) { return std::string("moved to the Trash"); },
            [](const CleanResult::RanCommand &) { return std::string("cleaned by its tool"); },
        },
        result.value());
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
    if (width == 0) {
        return {std::string(text)};
    }
    std::vector<std::string> lines(1);
    while (!text.empty()) {
        const auto space = text.find(' ');
        const auto word = text.substr(0, space);
        text = space == std::string_view::npos ? std::string_view{} : text.substr(space + 1);
        if (!lines.back().empty() &&
            Text::displayWidth(lines.back()) + 1 + Text::displayWidth(word) > width) {
            lines.emplace_back();
        }
        if (!lines.back().empty()) {
            lines.back() += ' ';
        }
        lines.back() += word;
    }
    return lines;
}

std::string leftAligned(std::string_view text, std::size_t width) {
    return std::string(text) + padding(text, width);
}

std::string rightAligned(std::string_view text, std::size_t width) {
    return padding(text, width) + std::string(text);
}

} // namespace klarbox::DisplayText
