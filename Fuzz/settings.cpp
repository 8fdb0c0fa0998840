#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <cstddef>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    try {
        const auto settings = ScanSettings::decode({reinterpret_cast<const char *>(data), size});
        fuzz::require(ScanSettings::decode(settings.encoded()) == settings,
                      "what is saved is what was read");
    } catch (const PlatformError &error) {
        fuzz::require(!error.message().empty(), "an error says what is wrong");
    }
    return 0;
}
