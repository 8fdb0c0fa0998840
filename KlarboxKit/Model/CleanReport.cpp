#include "KlarboxKit/Model/CleanReport.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/SaturatingAdd.hpp"

#include <algorithm>
#include <iterator>

namespace klarbox {

namespace {

std::int64_t sum(const std::vector<CleanOutcome> &outcomes, bool trashed) {
    std::int64_t total = 0;
    for (const auto &outcome : outcomes) {
        if (outcome.wentToTrash == trashed) {
            total = saturatingAdd(total, outcome.bytes);
        }
    }
    return total;
}

} // namespace

bool CleanResult::isFailure() const {
    return std::visit(overloaded{
                          [](const Partial &) { return true; },
                          [](const Failed &) { return true; },
                          [](const Refused &) { return true; },
                          [](const Removed &) { return false; },
                          [](const MovedToTrash &) { return false; },
                          [](const RanCommand &) { return false; },
                      },
                      value_);
}

std::int64_t CleanReport::freedBytes() const {
    return sum(outcomes, false);
}

std::int64_t CleanReport::trashedBytes() const {
    return sum(outcomes, true);
}

std::vector<CleanOutcome> CleanReport::failures() const {
    std::vector<CleanOutcome> failed;
    std::ranges::copy_if(outcomes, std::back_inserter(failed),
                         [](const CleanOutcome &outcome) { return outcome.result.isFailure(); });
    return failed;
}

} // namespace klarbox
