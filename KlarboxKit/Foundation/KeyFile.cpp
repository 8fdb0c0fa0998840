#include "KlarboxKit/Foundation/KeyFile.hpp"

namespace klarbox {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view withoutBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(blanks);
    return first == std::string_view::npos
               ? std::string_view{}
               : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string unescaped(std::string_view value) {
    std::string text;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            text += value[i];
            continue;
        }
        switch (value[++i]) {
        case 's':
            text += ' ';
            break;
        case 'n':
            text += '\n';
            break;
        case 't':
            text += '\t';
            break;
        case 'r':
            text += '\r';
            break;
        default: // a backslash, or an escape that the format does not know: the character itself
            text += value[i];
        }
    }
    return text;
}

} // namespace

std::optional<std::string> keyFileValue(std::string_view text, std::string_view group,
                                        std::string_view key) {
    std::optional<std::string_view> found;
    bool isInGroup = false;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto line = withoutBlanks(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.starts_with('[')) {
            isInGroup = line.ends_with(']') && line.substr(1, line.size() - 2) == group;
        } else if (const auto equals = line.find('=');
                   isInGroup && equals != std::string_view::npos &&
                   withoutBlanks(line.substr(0, equals)) == key) {
            found = withoutBlanks(line.substr(equals + 1));
        }
    }
    return found ? std::optional(unescaped(*found)) : std::nullopt;
}

} // namespace klarbox
