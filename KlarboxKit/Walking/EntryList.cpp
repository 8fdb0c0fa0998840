#include "KlarboxKit/Walking/EntryList.hpp"

#include <cstring>

namespace klarbox {

namespace {

constexpr std::size_t headSize = sizeof(std::uint64_t) + 1;

} // namespace

void EntryList::clear() {
    bytes_.clear();
    taken_ = 0;
    next_ = 0;
}

void EntryList::append(std::string_view name, std::uint64_t tag, bool isMarked) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + headSize + name.size() + 1);
    char *entry = bytes_.data() + at;
    std::memcpy(entry, &tag, sizeof tag);
    entry[sizeof tag] = isMarked ? 1 : 0;
    std::memcpy(entry + headSize, name.data(), name.size());
}

EntryList::Entry EntryList::take() {
    taken_ = next_;
    next_ = after(next_);
    const char *entry = bytes_.data() + taken_;
    Entry taken{entry + headSize, 0, entry[sizeof taken.tag] != 0};
    std::memcpy(&taken.tag, entry, sizeof taken.tag);
    return taken;
}

const char *EntryList::lastTaken() const {
    return bytes_.data() + taken_ + headSize;
}

bool EntryList::canSplit(bool keepOne) const {
    return !empty() && (!keepOne || after(next_) < bytes_.size());
}

EntryList EntryList::split(bool keepOne) {
    const std::size_t middle = next_ + (bytes_.size() - next_) / 2;
    std::size_t cut = keepOne ? after(next_) : next_;
    while (after(cut) < middle) {
        cut = after(cut);
    }
    EntryList later;
    later.bytes_.assign(bytes_.begin() + static_cast<std::ptrdiff_t>(cut), bytes_.end());
    bytes_.resize(cut);
    return later;
}

std::size_t EntryList::after(std::size_t position) const {
    return position + headSize + std::strlen(bytes_.data() + position + headSize) + 1;
}

} // namespace klarbox
