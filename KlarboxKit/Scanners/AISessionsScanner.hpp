#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "ai-sessions": conversation logs of AI tools that were not touched for 60 days, an item per
/// tool.
class AISessionsScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    /// Whether any of the tools keeps logs here.
    bool isRelevant(const ScanContext &context) const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
