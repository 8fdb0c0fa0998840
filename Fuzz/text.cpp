// Names from disk and outputs of tools, on their way to the screen or into a comparison.
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view bytes) {
    const auto repaired = Text::repairedUTF8(bytes);
    require(Text::isValidUTF8(repaired), "what was repaired is sound");
    require(Text::isValidUTF8(bytes) == (repaired == bytes), "what is sound stays");
    const auto shown = Text::visible(bytes);
    require(Text::visible(shown) == shown, "what is visible stays");
    require(Text::isValidUTF8(shown), "what is visible is sound");
    const auto controls = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; };
    require(std::ranges::none_of(shown, controls), "nothing visible controls a terminal");
    for (const std::size_t width :
         {std::size_t{0}, std::size_t{1}, bytes.size() / 2, bytes.size()}) {
        require(Text::displayWidth(Text::middleTruncated(shown, width)) <= width,
                "what is cut fits");
    }
    const auto lowered = Text::lowercased(bytes);
    require(Text::lowercased(lowered) == lowered, "lower case stays");
    require(Text::isValidUTF8(lowered) == Text::isValidUTF8(bytes), "case changes no more");
    std::size_t kept = 0;
    for (const auto line : Text::lines(bytes)) {
        require(!line.empty() && line.data() >= bytes.data(), "lines are of the text");
        kept += line.size();
    }
    require(kept <= bytes.size(), "lines are apart");
    const auto trimmed = Text::trimmed(bytes);
    require(Text::trimmed(trimmed) == trimmed, "nothing is left to trim");
    Text::lowercaseLetters(bytes);
    Text::foldedPathComponents(bytes);
}
