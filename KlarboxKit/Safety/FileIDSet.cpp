#include "KlarboxKit/Safety/FileIDSet.hpp"

#include <bit>
#include <utility>

namespace klarbox {

namespace {

/// Marks a free slot. No file system numbers its devices or files so.
constexpr FileID none{~std::uint64_t{0}, ~std::uint64_t{0}};

/// Inode numbers are often consecutive; the multiplications spread them over all bits.
std::uint64_t hashOf(const FileID &id) {
    std::uint64_t hash = (id.inode ^ std::rotl(id.device, 32)) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32;
    return hash * 0xD6E8FEB86659FD93U;
}

} // namespace

bool FileIDSet::insert(const FileID &id) {
    const auto hash = hashOf(id);
    // The top bits choose the part, the others the slot in it.
    static_assert(std::tuple_size_v<decltype(parts_)> == 16);
    auto &part = parts_[hash >> 60];
    const std::lock_guard lock(part.mutex);
    if (part.used * 4 >= part.slots.size() * 3) {
        grow(part);
    }
    return insertInto(part, id, hash);
}

bool FileIDSet::insertInto(Part &part, const FileID &id, std::uint64_t hash) {
    const std::size_t mask = part.slots.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
        if (part.slots[at] == id) {
            return false;
        }
        if (part.slots[at] == none) {
            part.slots[at] = id;
            ++part.used;
            return true;
        }
    }
}

void FileIDSet::grow(Part &part) {
    const std::size_t size = part.slots.empty() ? 64 : part.slots.size() * 2;
    const auto old = std::exchange(part.slots, std::vector<FileID>(size, none));
    part.used = 0;
    for (const auto &id : old) {
        if (id != none) {
            insertInto(part, id, hashOf(id));
        }
    }
}

} // namespace klarbox
