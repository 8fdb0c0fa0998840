#pragma once

#include "KlarboxKit/Model/CategoryInfo.hpp"
#include "KlarboxKit/Model/KlarboxItem.hpp"

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace klarbox {

/// A problem that kept a scanner from seeing everything.
class ScanIssue {
public:
    /// This path could not be read because the process lacks Full Disk Access.
    struct NeedsFullDiskAccess {
        std::string path;
        bool operator==(const NeedsFullDiskAccess &) const = default;
    };
    /// Anything else, with its message.
    struct Failed {
        std::string message;
        bool operator==(const Failed &) const = default;
    };
    using Value = std::variant<NeedsFullDiskAccess, Failed>;

    static ScanIssue needsFullDiskAccess(std::string path) {
        return Value(NeedsFullDiskAccess{std::move(path)});
    }
    static ScanIssue failed(std::string message) { return Value(Failed{std::move(message)}); }

    const Value &value() const { return value_; }
    bool operator==(const ScanIssue &) const = default;

private:
    ScanIssue(Value value) : value_(std::move(value)) {}
    Value value_;
};

/// The result of one scanner's run.
struct CategoryScan {
    CategoryInfo info;
    std::vector<KlarboxItem> items = {};
    std::vector<ScanIssue> issues = {};

    const std::string &id() const { return info.id; }
    /// Bytes of all items together.
    std::int64_t totalSize() const;

    bool operator==(const CategoryScan &) const = default;
};

} // namespace klarbox
