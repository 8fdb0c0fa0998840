#include "KlarboxKit/Scanners/HomebrewScanner.hpp"

#include <algorithm>

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view output) {
    const auto estimate = HomebrewScanner::parseKlarboxEstimate(output);
    require(!estimate || *estimate >= 0, "nothing frees less than nothing");
    require(std::ranges::all_of(HomebrewScanner::unremovableKegs(output),
                                [&](const FileURL &keg) {
                                    return output.find(keg.path()) != std::string_view::npos;
                                }),
            "folders are named as they are written");
}
