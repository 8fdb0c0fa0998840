#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace klarbox {

/// Reads the elements of one level of DER from front to back. Lengths that DER does not allow
/// (indefinite, not the shortest form) are no elements, nor are those that go beyond the end.
///
/// Holds a view of the bytes. Pure, safe from any thread.
class DERReader {
public:
    enum class Tag : unsigned char {
        integer = 0x02,
        octetString = 0x04,
        null = 0x05,
        objectIdentifier = 0x06,
        sequence = 0x30,
        set = 0x31,
        context0 = 0xa0, ///< constructed
        context1 = 0xa1  ///< constructed
    };

    struct Element {
        std::string_view whole; ///< with tag and length
        std::string_view content;
    };

    explicit DERReader(std::string_view bytes) : rest_(bytes) {}

    bool atEnd() const { return rest_.empty(); }

    /// Whether an element with this tag begins here, whole or not.
    bool isNext(Tag tag) const { return rest_.starts_with(static_cast<char>(tag)); }

    /// Takes the next element; nothing unless it has this tag and is whole.
    std::optional<Element> take(Tag tag);

private:
    std::string_view rest_;
};

/// The element with this tag and a content of at most 65,535 bytes.
std::string derElement(DERReader::Tag tag, std::string_view content);

} // namespace klarbox
