#include "KlarboxKit/Commands/SizeText.hpp"

#include <cstddef>
#include <string>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const auto decimal = SizeText::bytes(text, 1000);
    const auto binary = SizeText::bytes(text, 1024);
    fuzz::require(SizeText::bytes(" " + text + "\n", 1000) == decimal, "space around is nothing");
    if (decimal && binary) {
        fuzz::require(*decimal < 0 ? *binary <= *decimal : *binary >= *decimal,
                      "larger steps make larger sizes");
    }
    fuzz::require(decimal || !binary, "what is too large in small steps is so in large ones");
    return 0;
}
