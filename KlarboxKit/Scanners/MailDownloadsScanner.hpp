#pragma once

#include "KlarboxKit/Scanning/CategoryScanner.hpp"

namespace klarbox {

/// "mail-downloads": the copies of attachments that Mail keeps, as one item.
class MailDownloadsScanner final : public CategoryScanner {
public:
    const CategoryInfo &info() const override;
    CategoryScan scan(const ScanContext &context, std::stop_token stop) const override;
};

} // namespace klarbox
