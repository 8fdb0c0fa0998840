#pragma once

#include "KlarboxKit/Foundation/PropertyList.hpp"

#include <string_view>

/// The readers of the single formats. They throw as `PropertyList::parse` does, which chooses among
/// them. Input is at most `PropertyList::maximumSize` bytes. Safe from any thread.
namespace klarbox::PropertyListFormats {

/// Whether the text (no byte-order mark, no white space before it) is XML, not the old format's
/// data, which begins with "<" as well.
bool looksLikeXML(std::string_view text);

/// XML, beginning at line `firstLine` of its file. With `isUTF8` an encoding that the text declares
/// for itself does not count, because it was transcoded since.
PropertyList parseXML(std::string_view text, bool isUTF8, std::size_t firstLine);

/// Binary lists of the versions 00 to 09.
PropertyList parseBinary(std::string_view bytes);

/// The old text format, UTF-8. White space and comments alone are an empty dictionary.
PropertyList parseText(std::string_view text);

} // namespace klarbox::PropertyListFormats
