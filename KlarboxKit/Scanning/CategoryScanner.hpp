#pragma once

#include "KlarboxKit/Model/CategoryScan.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

#include <memory>
#include <stop_token>
#include <vector>

namespace klarbox {

/// Finds what one category offers. Implementations are immutable and share nothing with each other;
/// one may be asked from several threads at once. A scanner reads, and never changes, the disk.
class CategoryScanner {
public:
    virtual ~CategoryScanner() = default;

    /// The category that this scanner fills.
    virtual const CategoryInfo &info() const = 0;

    /// Whether the category applies to this machine at all.
    virtual bool isRelevant(const ScanContext &) const { return true; }

    /// Blocks until the category is scanned or `stop` is requested; then what was found so far is
    /// returned. What kept the scanner from seeing everything is an issue in the result; nothing
    /// is thrown.
    virtual CategoryScan scan(const ScanContext &context, std::stop_token stop) const = 0;
};

/// Scanners in catalog order.
using ScannerList = std::vector<std::shared_ptr<const CategoryScanner>>;

} // namespace klarbox
