#include "KlarboxKit/Commands/SizeText.hpp"

#include <string>

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view text) {
    const auto decimal = SizeText::bytes(text, 1000);
    const auto binary = SizeText::bytes(text, 1024);
    require(SizeText::bytes(" " + std::string(text) + "\n", 1000) == decimal,
            "space around is nothing");
    if (decimal && binary) {
        require(*decimal < 0 ? *binary <= *decimal : *binary >= *decimal,
                "larger steps make larger sizes");
    }
    require(decimal || !binary, "what is too large in small steps is so in large ones");
}
