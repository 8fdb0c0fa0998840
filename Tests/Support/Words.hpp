#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox::test {

/// The pieces of a text between its blanks.
inline std::vector<std::string> words(std::string_view text) {
    std::istringstream stream{std::string(text)};
    return {std::istream_iterator<std::string>(stream), {}};
}

} // namespace klarbox::test
