#include "KlarboxCLI/EnvironmentFile.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <cstddef>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view json(reinterpret_cast<const char *>(data), size);
    const auto none = [](std::string_view) { return std::nullopt; };
    try {
        const auto environment = environmentFromFile(json, {.runningBundleIDs = {},
                                                            .runningCommandLines = {},
                                                            .installedAppName = none,
                                                            .hasFullDiskAccess = false,
                                                            .now = {},
                                                            .locateTool = none,
                                                            .runner = nullptr});
        const auto tool = environment.locateTool("brew");
        fuzz::require(!tool || json.find("brew") != std::string_view::npos ||
                          json.find('\\') != std::string_view::npos,
                      "no tool is made up");
        environment.installedAppName("com.example.app");
    } catch (const PlatformError &error) {
        fuzz::require(!error.message().empty(), "an error says what is wrong");
    }
    return 0;
}
