#include "KlarboxKit/Commands/HomebrewOutput.hpp"

#include "KlarboxKit/Commands/SizeText.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>

#include <re2/re2.h>

namespace klarbox::HomebrewOutput {

std::optional<std::int64_t> parseKlarboxEstimate(std::string_view output) {
    // `\s` alone would be ASCII.
    static const RE2 estimate(R"(freed? approximately ([0-9.]+[\s\p{Z}]?[KMGT]?B))");
    re2::StringPiece size;
    if (!RE2::PartialMatch(re2::StringPiece(output.data(), output.size()), estimate, &size)) {
        return std::nullopt;
    }
    return SizeText::bytes({size.data(), size.size()}, 1024);
}

std::vector<FileURL> unremovableKegs(std::string_view output) {
    const auto lines = Text::lines(output);
    auto line = std::ranges::find_if(lines, [](std::string_view candidate) {
        return candidate.find("Could not cleanup old kegs") != std::string_view::npos;
    });
    std::vector<FileURL> kegs;
    if (line == lines.end()) {
        return kegs;
    }
    for (++line; line != lines.end() && line->starts_with(' '); ++line) {
        const auto path = Text::trimmed(*line);
        if (!path.starts_with('/')) {
            break;
        }
        kegs.emplace_back(path, true);
    }
    return kegs;
}

} // namespace klarbox::HomebrewOutput
