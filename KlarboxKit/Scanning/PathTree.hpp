#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace klarbox {

/// A set of locations, compared by whole components and without regard to letter case. A question
/// costs the length of the path asked about, however many locations are held. Reading is safe from
/// any thread.
class PathTree {
public:
    /// A path as it is compared: ".", ".." and empty components folded away, links not resolved,
    /// every component lower-cased.
    using Components = std::vector<std::string>;
    static Components components(const FileURL &url);

    void insert(const Components &path);

    /// Whether a location held equals the path or contains it.
    bool covers(const Components &path) const { return find(path).isCovered; }

    /// Whether a location held equals the path, contains it, or lies inside it.
    bool touches(const Components &path) const {
        const auto found = find(path);
        return found.isCovered || found.holdsMembers;
    }

private:
    struct Node {
        std::map<std::string, std::size_t, std::less<>> children; ///< places in `nodes_`
        bool isMember = false;
    };

    struct Found {
        bool isCovered;
        bool holdsMembers;
    };
    Found find(const Components &path) const;

    // One list, not nodes that own nodes: a path of any length is taken without recursion.
    std::vector<Node> nodes_ = std::vector<Node>(1);
};

} // namespace klarbox
