#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Platform/Overloaded.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <stop_token>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace klarbox::test {

/// An item in one line: identifier | title | detail | target | allowed root | tier and what else is
/// set | group | note; the tree's folder is written "$". Its size must be what its target occupies.
inline std::string line(const KlarboxItem &item, const TemporaryTree &tree) {
    EXPECT_EQ(item.size, DiskUsage::allocatedSize(item.target.paths())) << item.id;
    EXPECT_FALSE(item.isSizeEstimate);
    std::string text = item.id + " | " + item.title + " | " + item.detail.value_or("") + " |";
    std::visit(overloaded{[&](const KlarboxTarget::Item &) { text += " item"; },
                          [&](const KlarboxTarget::Contents &) { text += " contents"; },
                          [&](const KlarboxTarget::Items &) { text += " items"; },
                          [&](const KlarboxTarget::Command &) { text += " command"; }},
               item.target.value());
    for (const auto &path : item.target.paths()) {
        text += " " + path.path();
    }
    text += " | " + item.allowedRoot.value().path();
    constexpr std::array tiers{" | safe", " | leftover", " | review"};
    text += tiers[static_cast<std::size_t>(item.tier)];
    text += item.isSelectedByDefault ? " selected" : "";
    text += item.removalPolicy == RemovalPolicy::permanentOnly ? " permanent" : "";
    text += item.requiresPrivileges ? " privileged" : "";
    text += " | " + item.group.value_or("") + " | " + item.note.value_or("");
    const auto &root = tree.root().path();
    for (auto at = text.find(root); at != std::string::npos; at = text.find(root, at)) {
        text.replace(at, root.size(), "$");
    }
    return text;
}

inline std::vector<std::string> lines(const CategoryScan &scan, const TemporaryTree &tree) {
    std::vector<std::string> found;
    for (const auto &item : scan.items) {
        found.push_back(line(item, tree));
    }
    return found;
}

inline std::vector<std::string> titles(const CategoryScan &scan) {
    std::vector<std::string> found;
    for (const auto &item : scan.items) {
        found.push_back(item.title);
    }
    return found;
}

/// A token whose stop was requested before the scan began.
inline std::stop_token stopped() {
    std::stop_source source;
    source.request_stop();
    return source.get_token();
}

} // namespace klarbox::test
