#include "KlarboxKit/Scanning/PathTree.hpp"

#include "KlarboxKit/Foundation/Text.hpp"

namespace klarbox {

PathTree::Components PathTree::components(const FileURL &url) {
    return Text::foldedPathComponents(url.standardized().path());
}

void PathTree::insert(const Components &path) {
    std::size_t at = 0;
    for (const auto &component : path) {
        const auto [child, isNew] = nodes_[at].children.try_emplace(component, nodes_.size());
        at = child->second;
        if (isNew) {
            nodes_.emplace_back();
        }
    }
    nodes_[at].isMember = true;
}

PathTree::Found PathTree::find(const Components &path) const {
    const Node *node = &nodes_.front();
    for (const auto &component : path) {
        const auto child = node->children.find(component);
        if (node->isMember || child == node->children.end()) {
            return {.isCovered = node->isMember, .holdsMembers = false};
        }
        node = &nodes_[child->second];
    }
    return {.isCovered = node->isMember, .holdsMembers = !node->children.empty()};
}

} // namespace klarbox
