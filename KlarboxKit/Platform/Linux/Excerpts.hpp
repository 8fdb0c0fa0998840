#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// What was read of an executable before it was verified, to be compared with what is verified.
/// Whoever can write to the file could otherwise show one content to the verification and another
/// to whoever asks what the verified program is.
class Excerpts {
public:
    /// Reads and keeps `size` bytes from `offset` of the file. Throws `PlatformError`, also when
    /// the file ends before.
    void read(const UniqueFD &file, void *buffer, std::size_t size, std::uint64_t offset);

    /// To be told about all bytes of the executable in order; false when they are not those read
    /// before.
    bool agreeWith(std::string_view bytes, std::uint64_t offset);

    /// Whether the comparison came by all of them.
    bool areCompared() const;

private:
    struct Excerpt {
        std::uint64_t offset;
        std::string bytes;
        std::size_t compared;
    };
    std::vector<Excerpt> excerpts_;
};

} // namespace klarbox
