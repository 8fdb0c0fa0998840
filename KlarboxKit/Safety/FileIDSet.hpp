#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace klarbox {

/// Identifies one file across all its hard links.
struct FileID {
    std::uint64_t device;
    std::uint64_t inode;

    friend bool operator==(const FileID &, const FileID &) = default;
};

/// The files already met, kept in flat tables so that a file costs no allocation of its own.
/// Safe from any thread: it is cut into parts so that walkers seldom wait for each other.
class FileIDSet {
public:
    /// Whether the file was not in the set before.
    bool insert(const FileID &id);

private:
    struct Part {
        std::mutex mutex;
        std::vector<FileID> slots; ///< open addressing; a power of two, or none
        std::size_t used = 0;
    };

    static bool insertInto(Part &part, const FileID &id, std::uint64_t hash);
    static void grow(Part &part);

    std::array<Part, 16> parts_;
};

} // namespace klarbox
