#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "broken-preferences": files of the person's Library/Preferences, and of ByHost in it, that
/// cannot serve as preference files because they are empty, no property list, or no dictionary. A
/// file that cannot be read, or is too much to judge, is never offered.
class BrokenPreferencesScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
