// Everything that is no binary list: byte-order marks and encodings, then XML or the old format.
#include <cstddef>
#include <cstdint>

#include "Fuzz/PropertyListInput.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    fuzz::readPropertyList([&] { return PropertyList::parse(bytes); });
    return 0;
}
