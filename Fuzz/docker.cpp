#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Scanners/DockerScanner.hpp"

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view report(reinterpret_cast<const char *>(data), size);
    fuzz::require(DockerScanner::parseSystemDF(report).size() <= Text::lines(report).size(),
                  "a row gives one type");
    return 0;
}
