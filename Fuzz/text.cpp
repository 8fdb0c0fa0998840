// Names from disk and outputs of tools, on their way to the screen or into a comparison.
#include "KlarboxKit/Platform/Text.hpp"

#include <algorithm>
#include <cstdint>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    const auto repaired = Text::repairedUTF8(bytes);
    fuzz::require(Text::isValidUTF8(repaired), "what was repaired is sound");
    fuzz::require(Text::isValidUTF8(bytes) == (repaired == bytes), "what is sound stays");
    const auto shown = Text::visible(bytes);
    fuzz::require(Text::visible(shown) == shown, "what is visible stays");
    fuzz::require(
        std::ranges::none_of(
            shown, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }),
        "nothing visible controls a terminal");
    for (const std::size_t width : {std::size_t{0}, std::size_t{1}, size / 2, size}) {
        fuzz::require(Text::displayWidth(Text::middleTruncated(shown, width)) <= width,
                      "what is cut fits");
    }
    const auto lowered = Text::lowercased(bytes);
    fuzz::require(Text::lowercased(lowered) == lowered, "lower case stays");
    fuzz::require(Text::isValidUTF8(lowered) == Text::isValidUTF8(bytes), "case changes no more");
    std::size_t kept = 0;
    for (const auto line : Text::lines(bytes)) {
        fuzz::require(!line.empty() && line.data() >= bytes.data(), "lines are of the text");
        kept += line.size();
    }
    fuzz::require(kept <= size, "lines are apart");
    const auto trimmed = Text::trimmed(bytes);
    fuzz::require(Text::trimmed(trimmed) == trimmed, "nothing is left to trim");
    Text::lowercaseLetters(bytes);
    Text::foldedPathComponents(bytes);
    return 0;
}
