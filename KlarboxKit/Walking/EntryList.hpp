#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace klarbox {

/// Entries of one folder that a walk has still to look at, packed one after another: no allocation
/// per entry. For one thread at a time.
class EntryList {
public:
    struct Entry {
        const char *name;  ///< valid until the list changes
        std::uint64_t tag; ///< what the walk noted about the entry
        bool isMarked;
    };

    bool empty() const { return next_ == bytes_.size(); }
    void clear();
    void append(std::string_view name, std::uint64_t tag, bool isMarked);
    /// Takes the first entry. Its name stays readable through `lastTaken`.
    Entry take();
    /// The name of the entry taken last, while the list is not cleared.
    const char *lastTaken() const;
    /// Whether there is something to give away; with `keepOne`, something besides.
    bool canSplit(bool keepOne) const;
    /// Gives away the later half, at least one entry. Only when `canSplit`.
    EntryList split(bool keepOne);

private:
    std::size_t after(std::size_t position) const;

    std::vector<char> bytes_;
    std::size_t taken_ = 0;
    std::size_t next_ = 0;
};

} // namespace klarbox
