#pragma once

#include "KlarboxKit/Platform/PropertyList.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Property lists written by hand, and how a list that was read is compared with them.
namespace klarbox::test {

/// The list on one line, everything in the order of the file: {"key": value, …}, [1, 1.5, true],
/// <bytes in hexadecimal>, @microseconds since 1970, uid 7, null. "?" is a number that is sound but
/// does not fit.
std::string describe(const PropertyList &list);

/// An XML list around `body`, with declaration and document type as the system writes them.
std::string xmlList(std::string_view body, std::string_view encoding = "UTF-8");

/// UTF-8 text in code units of 2 or 4 bytes.
std::string wide(const std::string &utf8, std::size_t unitSize, bool isBigEndian);

/// The number in `size` bytes, most significant first.
std::string bigEndian(std::uint64_t number, std::size_t size);

/// A binary list of the objects as they stand, the first one on top.
std::string binaryList(const std::vector<std::string> &objects, std::size_t referenceSize = 1);

/// What is added to a binary list's end: the table of `offsets` and the trailer.
std::string binaryEnd(std::uint64_t tableOffset, const std::vector<std::uint64_t> &offsets,
                      std::size_t referenceSize);

} // namespace klarbox::test
