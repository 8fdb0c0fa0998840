#include "KlarboxApp/Environment/EnvironmentFile.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view json) {
    const auto none = [](std::string_view) { return std::nullopt; };
    tryTo([&] {
        const auto environment = environmentFromFile(json, {.runningBundleIDs = {},
                                                            .runningCommandLines = {},
                                                            .installedAppName = none,
                                                            .hasFullDiskAccess = false,
                                                            .now = {},
                                                            .locateTool = none,
                                                            .runner = nullptr});
        const auto tool = environment.locateTool("brew");
        require(!tool || json.find("brew") != json.npos || json.find('\\') != json.npos,
                "no tool is made up");
        environment.installedAppName("com.example.app");
    });
}
