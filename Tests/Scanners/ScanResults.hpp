#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"

#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace klarbox::test {

inline std::vector<std::string> titles(const CategoryScan &scan) {
    std::vector<std::string> found;
    for (const auto &item : scan.items) {
        found.push_back(item.title);
    }
    return found;
}

inline std::vector<std::string> ids(const CategoryScan &scan) {
    std::vector<std::string> found;
    for (const auto &item : scan.items) {
        found.push_back(item.id);
    }
    return found;
}

/// The item with this identifier. Throws when there is none.
inline const KlarboxItem &itemWithID(const CategoryScan &scan, const std::string &id) {
    for (const auto &item : scan.items) {
        if (item.id == id) {
            return item;
        }
    }
    throw std::out_of_range("no item " + id + " in " + testing::PrintToString(ids(scan)));
}

/// A token whose stop was requested before the scan began.
inline std::stop_token stopped() {
    std::stop_source source;
    source.request_stop();
    return source.get_token();
}

} // namespace klarbox::test
