#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace klarbox {

/// What the person wants to be left alone, judged in one way by scans and by cleans. An entry is an
/// absolute path or "~/…", compared by whole components and without regard to letter case. In a
/// component "*" stands for any characters and "?" for one; "**" as a whole component stands for
/// any number of components, also none. A backslash before "*", "?" or "\" takes it as written.
/// "category:ID" excludes a category. Immutable; reading is safe from any thread.
class Exclusions {
public:
    static constexpr std::string_view categoryPrefix = "category:";

    Exclusions() = default;

    /// Links are resolved here, once: of a path without wildcards wholly, else of the components
    /// before the first one. Throws `PlatformError` for a relative path without a current folder.
    Exclusions(const FileURL &home, std::span<const std::string> entries);

    /// A place in the tree of exclusions: descend to a folder once, then ask for each entry.
    class Cursor {
    public:
        Cursor child(std::string_view name) const;

        /// Whether something excluded is here, contains this, or lies inside it. What an entry
        /// without wildcards names need not exist to count. What wildcards match must: then folders
        /// are listed, following no link; what cannot be listed, or is too much, counts.
        bool isTouched() const;

    private:
        friend Exclusions;
        Cursor(const Exclusions &owner, FileURL place) : owner_(&owner), place_(std::move(place)) {}

        const Exclusions *owner_;
        FileURL place_;
        std::vector<std::size_t> states_; ///< nodes that the path so far leads to
        bool isCovered_ = false;
    };

    /// At a location as written, links not resolved. Refers to this object.
    Cursor at(const FileURL &location) const;
    bool touches(const FileURL &location) const { return at(location).isTouched(); }
    bool excludesCategory(std::string_view id) const;
    bool isEmpty() const { return nodes_.size() == 1 && !nodes_.front().isMember; }

    /// Whether an entry, a path, would exclude the whole disk.
    static bool isEverything(const FileURL &home, std::string_view entry);

    /// Whether an entry, a path, excludes anything that exists now, or that cannot be looked at.
    static bool matchesAnything(const FileURL &home, const std::string &entry);

    /// The identifiers of the categories that are excluded, as written.
    const std::vector<std::string> &categories() const { return categories_; }

private:
    struct Node {
        std::map<std::string, std::size_t, std::less<>> names;  ///< places in `nodes_`
        std::vector<std::pair<std::string, std::size_t>> globs; ///< names with wildcards
        std::size_t anyDepth = 0;                               ///< node of "**"; 0: none
        bool loops = false;                                     ///< is a node of "**"
        bool isMember = false;
        bool leadsToPlain = false; ///< on the way to an entry without wildcards
    };

    void insert(const FileURL &base, std::span<const std::string> pattern);
    std::size_t childFor(std::size_t node, const std::string &component);
    void enter(std::size_t node, Cursor &cursor) const;
    bool matchesBelow(const Cursor &cursor) const;

    std::vector<Node> nodes_ = std::vector<Node>(1);
    std::vector<std::string> categories_;
};

/// Resolves the links of many locations, looking at each folder on their ways once. For one thread.
class LinkMemo {
public:
    /// The location with links resolved as far down as anything exists; the last component's own
    /// link only on request.
    FileURL resolved(const FileURL &url, bool followsLast);

private:
    struct Place {
        std::string real; ///< empty for "/"
        bool exists;
    };
    static Place step(const Place &parent, std::string_view name);
    std::map<std::string, Place, std::less<>> folders_;
};

} // namespace klarbox
