// What the fuzzer calls.
#include <cstddef>
#include <cstdint>

#include "Fuzz/Target.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    klarbox::fuzz::run({reinterpret_cast<const char *>(data), size});
    return 0;
}
