#include "KlarboxKit/Scanners/HomebrewScanner.hpp"

#include <algorithm>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view output(reinterpret_cast<const char *>(data), size);
    const auto estimate = HomebrewScanner::parseKlarboxEstimate(output);
    fuzz::require(!estimate || *estimate >= 0, "nothing frees less than nothing");
    fuzz::require(std::ranges::all_of(HomebrewScanner::unremovableKegs(output),
                                      [&](const FileURL &keg) {
                                          return output.find(keg.path()) != std::string_view::npos;
                                      }),
                  "folders are named as they are written");
    return 0;
}
