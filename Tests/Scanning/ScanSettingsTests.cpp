#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;

TEST(ScanSettings, readsWhatItWrites) {
    const ScanSettings settings{.projectRoots = {"~/Code", "~/code", "~/Code", "/a \"b\"\n"},
                                .includeNodeModules = true,
                                .staleProjectDays = -5,
                                .excludedPaths = {}};
    EXPECT_EQ(settings.encoded(), R"({
  "projectRoots": [
    "~/Code",
    "~/code",
    "~/Code",
    "/a \"b\"\n"
  ],
  "includeNodeModules": true,
  "staleProjectDays": -5,
  "excludedPaths": []
}
)");
    EXPECT_EQ(ScanSettings::decode(settings.encoded()), settings);
    auto reordered = settings;
    std::swap(reordered.projectRoots[0], reordered.projectRoots[1]);
    EXPECT_NE(reordered, settings);
}

TEST(ScanSettings, ignoresUnknownKeys) {
    EXPECT_EQ(ScanSettings::decode(R"({"more": null, "excludedPaths": ["~/x"],
                                       "staleProjectDays": 30, "includeNodeModules": false,
                                       "projectRoots": []})"),
              (ScanSettings{.projectRoots = {},
                            .includeNodeModules = false,
                            .staleProjectDays = 30,
                            .excludedPaths = {"~/x"}}));
}

TEST(ScanSettings, namesTheKeyThatIsMissingOrWrong) {
    const std::string sound = ScanSettings{
        .projectRoots = {"~/p"},
        .includeNodeModules = true,
        .staleProjectDays = 30,
        .excludedPaths = {"~/e"}}.encoded();
    const struct {
        std::string from;
        std::string to;
        const char *named;
    } cases[] = {
        {"projectRoots", "projectroots", "\"projectRoots\" is missing"},
        {"includeNodeModules", "x", "\"includeNodeModules\" is missing"},
        {"staleProjectDays", "x", "\"staleProjectDays\" is missing"},
        {"excludedPaths", "ExcludedPaths", "\"excludedPaths\" is missing"},
        {"\"~/p\"", "3", "\"projectRoots\" must be"},
        {"\"~/e\"", "null", "\"excludedPaths\" must be"},
        {"true", "1", "\"includeNodeModules\" must be"},
        {"true", "\"true\"", "\"includeNodeModules\" must be"},
        {"30", "\"30\"", "\"staleProjectDays\" must be"},
        {"30", "30.5", "\"staleProjectDays\" must be"},
        {"30", "9223372036854775808", "\"staleProjectDays\" must be"},
        {"30", "null", "\"staleProjectDays\" must be"},
        {sound, "[]", "must be a JSON object"},
        {sound, "", "not valid JSON"},
        {sound, sound + "{}", "not valid JSON"},
    };
    for (const auto &[from, to, named] : cases) {
        auto json = sound;
        json.replace(json.find(from), from.size(), to);
        try {
            ScanSettings::decode(json);
            ADD_FAILURE() << "accepted " << json;
        } catch (const PlatformError &error) {
            EXPECT_THAT(error.message(), HasSubstr(named)) << json;
        }
    }
}

} // namespace
} // namespace klarbox::test
