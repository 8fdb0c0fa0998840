#pragma once

#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanning/CategoryScanner.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"
#include "Tests/Support/Words.hpp"

#include <algorithm>
#include <iterator>
#include <stop_token>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

namespace klarbox::test {

inline std::string replaced(std::string text, std::string_view from, std::string_view to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

/// An item as text:
///     identifier | title | detail | target | allowed root | whether selected, tier and policy
/// and below it, a line each, the paths of a list, what a command runs and frees, and the note,
/// sentence by sentence, after its group. `folder` is written "$". What repeats where the target
/// lies (a list: its allowed root; a command: as it is typed) is short: "@" is its path, "*" its
/// name, "~" its path as seen from home, "." that path without the "~/", ".." the folder that holds
/// it. The size must be what a file target occupies.
inline std::string offer(const KlarboxItem &item, const FileURL &home, const FileURL &folder) {
    const auto &target = item.target.value();
    const auto *command = std::get_if<KlarboxTarget::Command>(&target);
    const bool isList = std::holds_alternative<KlarboxTarget::Items>(target);
    const auto paths = item.target.paths();
    const auto root = item.allowedRoot ? item.allowedRoot->path() : "none";
    const auto place = command  ? command->action.displayString()
                       : isList ? root
                                : paths.at(0).path();
    const FileURL url(place);
    const auto fromHome = FS::tildePath(url, home);
    const auto brief = [&](const std::string &text) {
        return text == place                 ? "@"
               : text == url.lastComponent() ? "*"
               : text == fromHome            ? "~"
               : "~/" + text == fromHome     ? "."
               : text == url.parent().path() ? ".."
                                             : text;
    };
    constexpr std::array kinds{"item ", "contents ", "items", "command"};
    constexpr std::array tiers{"safe", "leftover", "review"};
    const auto colon = item.id.find(':') + 1;
    auto text = fmt::format(
        "\n{}{} | {} | {} | {}{} | {} | {} {}{}{}", item.id.substr(0, colon),
        brief(item.id.substr(colon)), brief(item.title), brief(item.detail.value_or("")),
        kinds.at(target.index()), command || isList ? "" : place, brief(root),
        item.isSelectedByDefault ? "[x]" : "[ ]", tiers.at(static_cast<std::size_t>(item.tier)),
        item.removalPolicy == RemovalPolicy::permanentOnly ? " permanent" : "",
        item.requiresPrivileges ? " root" : "");
    if (command) {
        text +=
            fmt::format("\n    {} {} frees{} {} bytes", command->action.executable.path(),
                        command->action.arguments, item.isSizeEstimate ? " about" : "", item.size);
    } else {
        EXPECT_EQ(item.size, DiskUsage::allocatedSize(paths)) << item.id;
        EXPECT_FALSE(item.isSizeEstimate) << item.id;
    }
    for (std::size_t i = 0; isList && i < paths.size(); ++i) {
        text += "\n    + " + replaced(paths[i].path(), root + "/", "");
    }
    if (item.group || item.note) {
        text += "\n    " + (item.group ? *item.group + ": " : "") +
                replaced(item.note.value_or(""), ". ", ".\n    ");
    }
    return replaced(text, folder.path(), "$");
}

/// What the scanner offers, item by item as text; it must have nothing to complain about.
inline std::string offers(const CategoryScanner &scanner, const ScanContext &context,
                          const FileURL &folder, std::stop_token stop = {}) {
    const auto scan = scanner.scan(context, std::move(stop));
    EXPECT_THAT(scan.issues, testing::IsEmpty());
    std::string text;
    for (const auto &item : scan.items) {
        text += offer(item, context.home, folder);
    }
    return text;
}

/// One member of every item.
template <typename Value>
std::vector<Value> each(const CategoryScan &scan, Value KlarboxItem::*member) {
    std::vector<Value> values;
    std::ranges::transform(scan.items, std::back_inserter(values), member);
    return values;
}

inline std::vector<std::string> titles(const CategoryScan &scan) {
    return each(scan, &KlarboxItem::title);
}

/// Adds a file of some blocks at each path, below a folder that ends in a slash.
inline void addFiles(const TemporaryTree &tree, const std::string &folder,
                     const std::string &paths) {
    for (const auto &path : words(paths)) {
        tree.add({folder + path, bytes(9000)});
    }
}

/// A context in which one tool is installed and answers as recorded.
inline ScanContext contextWith(std::string name, const FileURL &tool,
                               std::map<std::string, CommandResult> answers,
                               const FileURL &home = FileURL("/nowhere")) {
    auto context = scanContext(home);
    context.environment.locateTool = [=](std::string_view wanted) {
        return wanted == name ? std::optional(tool) : std::nullopt;
    };
    context.environment.runner = std::make_shared<RecordedRunner>(std::move(answers));
    return context;
}

/// What the context's tools were asked so far: the seconds each was given and its command.
inline std::vector<std::string> asked(const ScanContext &context) {
    std::vector<std::string> found;
    for (const auto &[action, timeout] :
         dynamic_cast<const RecordedRunner &>(*context.environment.runner).calls()) {
        found.push_back(fmt::format("{} s: {}",
                                    std::chrono::floor<std::chrono::seconds>(timeout).count(),
                                    action.displayString()));
    }
    return found;
}

/// A link to what lies below the folder two above it, written long enough that file systems give it
/// blocks of its own: measured as itself, it is worth offering.
inline Entry::SymbolicLink longLink(const std::string &target) {
    return link("../.." + std::string(200, '/') + target);
}

/// A token whose stop was requested before the scan began.
inline std::stop_token stopped() {
    std::stop_source source;
    source.request_stop();
    return source.get_token();
}

} // namespace klarbox::test
