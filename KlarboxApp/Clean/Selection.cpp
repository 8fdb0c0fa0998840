#include "KlarboxApp/Clean/Selection.hpp"

#include "KlarboxApp/InputError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>

namespace klarbox::Selection {

std::vector<CategoryScan> select(std::vector<CategoryScan> scans,
                                 const std::function<bool(const KlarboxItem &)> &wanted,
                                 const std::vector<std::string> &identifiers) {
    // Names on disk may differ only in bytes that cannot be shown; then the text names neither.
    std::map<std::string, std::set<std::string>> shownAs;
    for (const auto &scan : scans) {
        for (const auto &item : scan.items) {
            shownAs[Text::repairedUTF8(item.id)].insert(item.id);
        }
    }
    std::set<std::string> named;
    for (const auto &identifier : identifiers) {
        auto meant = shownAs[Text::repairedUTF8(identifier)];
        if (!Text::isValidUTF8(identifier)) {
            // The very bytes, not what stands for them.
            std::erase_if(meant, [&](const std::string &id) { return id != identifier; });
        }
        if (meant.size() != 1) {
            throw InputError(InputError::Input::item,
                             fmt::format("{} '{}'; nothing was cleaned",
                                         meant.empty() ? "the scan found no item"
                                                       : "more than one item is shown as",
                                         Text::visible(identifier)));
        }
        named.merge(meant);
    }
    for (auto &scan : scans) {
        std::erase_if(scan.items, [&](const KlarboxItem &item) {
            return !wanted(item) && !named.contains(item.id);
        });
    }
    return scans;
}

Choice choose(std::vector<CategoryScan> scans, bool byDefault,
              const std::vector<std::string> &identifiers, const CleanObstacles &obstacles) {
    const auto marked = [&](const KlarboxItem &item) {
        return byDefault && item.isSelectedByDefault;
    };
    const auto taken = [&](const KlarboxItem &item) {
        return byDefault && obstacles.startsOutSelected(item);
    };
    auto notCleanable = obstacles.sums(items(select(scans, marked, identifiers)));
    return {.scans = select(std::move(scans), taken, identifiers),
            .notCleanable = std::move(notCleanable)};
}

std::vector<KlarboxItem> items(const std::vector<CategoryScan> &scans) {
    std::vector<KlarboxItem> all;
    for (const auto &scan : scans) {
        all.insert(all.end(), scan.items.begin(), scan.items.end());
    }
    return all;
}

} // namespace klarbox::Selection
