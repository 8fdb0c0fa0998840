#include "KlarboxKit/Platform/PropertyListFormats.hpp"

#include <cstddef>
#include <cstdint>

#include "Fuzz/PropertyListInput.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    fuzz::readPropertyList([&] { return PropertyListFormats::parseText(bytes); });
    return 0;
}
