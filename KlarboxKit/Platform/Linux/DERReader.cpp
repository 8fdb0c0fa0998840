#include "KlarboxKit/Platform/Linux/DERReader.hpp"

#include <cstddef>

namespace klarbox {

std::optional<DERReader::Element> DERReader::take(Tag tag) {
    if (!isNext(tag) || rest_.size() < 2) {
        return std::nullopt;
    }
    const auto at = [&](std::size_t index) { return static_cast<unsigned char>(rest_[index]); };
    constexpr unsigned char isLong = 0x80;
    // Of the long form two bytes: nothing that is read here may be longer than they can say.
    std::size_t header = 2;
    std::size_t length = at(1);
    if (length == (isLong | 1U) && rest_.size() > 2) {
        header = 3;
        length = at(2);
        if (length < isLong) {
            return std::nullopt;
        }
    } else if (length == (isLong | 2U) && rest_.size() > 3) {
        header = 4;
        length = std::size_t{at(2)} << 8 | at(3);
        if (length <= 0xff) {
            return std::nullopt;
        }
    } else if (length >= isLong) {
        return std::nullopt;
    }
    if (length > rest_.size() - header) {
        return std::nullopt;
    }
    const Element element{rest_.substr(0, header + length), rest_.substr(header, length)};
    rest_.remove_prefix(header + length);
    return element;
}

std::string derElement(DERReader::Tag tag, std::string_view content) {
    const auto length = content.size();
    std::string element(1, static_cast<char>(tag));
    if (length > 0xff) {
        element += {'\x82', static_cast<char>(length >> 8)};
    } else if (length >= 0x80) {
        element += '\x81';
    }
    element += static_cast<char>(length);
    return element.append(content);
}

} // namespace klarbox
