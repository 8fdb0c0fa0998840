#include "KlarboxKit/Model/KlarboxTarget.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"

namespace klarbox {

std::vector<FileURL> KlarboxTarget::paths() const {
    return std::visit(overloaded{
                          [](const Item &item) { return std::vector{item.url}; },
                          [](const Contents &contents) { return std::vector{contents.of}; },
                          [](const Items &items) { return items.urls; },
                          [](const Command &) { return std::vector<FileURL>{}; },
                      },
                      value_);
}

} // namespace klarbox
