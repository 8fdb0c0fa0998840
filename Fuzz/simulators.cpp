#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    klarbox::SimulatorsScanner::parseUnavailable({reinterpret_cast<const char *>(data), size});
    return 0;
}
