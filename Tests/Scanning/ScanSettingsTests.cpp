#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

const ScanSettings sound{.projectRoots = {"~/p", "/a \"b\"\n"},
                         .includeNodeModules = true,
                         .staleProjectDays = -5,
                         .excludedPaths = {"~/e"}};

TEST(ScanSettings, readsWhatItWritesAndIgnoresUnknownKeys) {
    auto json = sound.encoded();
    EXPECT_EQ(ScanSettings::decode(json), sound);
    EXPECT_EQ(ScanSettings::decode(json.insert(1, "\"more\": null,")), sound);
}

TEST(ScanSettings, namesTheKeyThatIsMissingOrWrong) {
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
        {"-5", "\"30\"", "\"staleProjectDays\" must be"},
        {"-5", "30.5", "\"staleProjectDays\" must be"},
        {"-5", "9223372036854775808", "\"staleProjectDays\" must be"},
        {sound.encoded(), "[]", "must be a JSON object"},
        {sound.encoded(), "", "not valid JSON"},
        {sound.encoded(), sound.encoded() + "{}", "not valid JSON"},
    };
    for (const auto &[from, to, named] : cases) {
        auto json = sound.encoded();
        json.replace(json.find(from), from.size(), to);
        try {
            ScanSettings::decode(json);
            ADD_FAILURE() << "accepted " << json;
        } catch (const PlatformError &error) {
            EXPECT_THAT(error.message(), testing::HasSubstr(named)) << json;
        }
    }
}

} // namespace
} // namespace klarbox::test
