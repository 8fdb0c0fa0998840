#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// The names of a folder's entries, packed in lots: a million of them take little more room than
/// their bytes, also while they are gathered. For one thread at a time while it changes.
class NameList {
public:
    class Iterator {
    public:
        using difference_type = std::ptrdiff_t;
        using value_type = std::string_view;

        Iterator() = default;
        std::string_view operator*() const { return {&(*lots_)[lot_][offset_]}; }
        Iterator &operator++() {
            offset_ += (**this).size() + 1;
            if (offset_ == (*lots_)[lot_].size()) {
                ++lot_;
                offset_ = 0;
            }
            return *this;
        }
        Iterator operator++(int) {
            auto before = *this;
            ++*this;
            return before;
        }
        bool operator==(const Iterator &) const = default;

    private:
        friend NameList;
        Iterator(const std::vector<std::string> &lots, std::size_t lot) : lots_(&lots), lot_(lot) {}

        const std::vector<std::string> *lots_ = nullptr;
        std::size_t lot_ = 0;
        std::size_t offset_ = 0;
    };

    /// `name` has no NUL.
    void append(std::string_view name) {
        if (lots_.empty() || lots_.back().size() + name.size() >= lotSize) {
            lots_.emplace_back().reserve(lotSize);
        }
        lots_.back().append(name).push_back('\0');
        ++size_;
    }

    std::size_t size() const { return size_; }
    Iterator begin() const { return {lots_, 0}; }
    Iterator end() const { return {lots_, lots_.size()}; }

private:
    static constexpr std::size_t lotSize = 16 << 10;

    std::vector<std::string> lots_; ///< names that a NUL ends each; none is empty
    std::size_t size_ = 0;
};

} // namespace klarbox
