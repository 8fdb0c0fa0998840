#include "KlarboxKit/Platform/Linux/Excerpts.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include <algorithm>

namespace klarbox {

void Excerpts::read(const UniqueFD &file, void *buffer, std::size_t size, std::uint64_t offset) {
    // A file that ends too early now may be longer when it is verified.
    if (!readExactly(file, buffer, size, offset)) {
        throw PlatformError(PlatformError::Domain::cocoa, PlatformError::fileReadUnknown,
                            "The executable is damaged.");
    }
    excerpts_.push_back({offset, std::string(static_cast<const char *>(buffer), size), 0});
}

bool Excerpts::agreeWith(std::string_view bytes, std::uint64_t offset) {
    for (auto &excerpt : excerpts_) {
        const auto from = std::max(offset, excerpt.offset);
        const auto to = std::min(offset + bytes.size(), excerpt.offset + excerpt.bytes.size());
        if (from >= to) {
            continue;
        }
        if (bytes.substr(from - offset, to - from) !=
            std::string_view(excerpt.bytes).substr(from - excerpt.offset, to - from)) {
            return false;
        }
        excerpt.compared += to - from;
    }
    return true;
}

bool Excerpts::areCompared() const {
    return std::ranges::all_of(excerpts_,
                               [](const Excerpt &e) { return e.compared == e.bytes.size(); });
}

} // namespace klarbox
