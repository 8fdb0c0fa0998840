#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view listing) {
    SimulatorsScanner::parseUnavailable(listing);
}
