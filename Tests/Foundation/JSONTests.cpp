#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <ctime>
#include <functional>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;

std::string problem(const std::function<void()> &action) {
    try {
        action();
    } catch (const PlatformError &error) {
        EXPECT_EQ(error.code(), PlatformError::coderReadCorrupt);
        return error.message();
    }
    return "none";
}

TEST(JSON, saysWhatIsWrongInOneShortLine) {
    const std::pair<std::string, std::string_view> cases[] = {
        {"", "line 1, column 1"},
        {"{\n \"a\": 1,\n}", "line 3, column 1"},
        {"{} {}", "line 1, column 4"},
        {"[1e999]", "number overflow"},
        {"\"\xFF\"", "ill-formed UTF-8"},
        {"\"\\ud800\"", "surrogate"},
        {"\"a\x1b[2J\nb\"", "control character"},
        {"\"" + std::string(1'000'000, 'x'), "line 1, column"},
        {std::string(300, '['), "nested more than 256 deep"},
    };
    for (const auto &[bytes, expected] : cases) {
        const auto said = problem([&, &text = bytes] { parseJSON(text); });
        EXPECT_THAT(said, HasSubstr(expected)) << bytes.substr(0, 100);
        EXPECT_LT(said.size(), 300U);
        EXPECT_EQ(said.find_first_of("\x1b\n"), std::string::npos);
    }
}

TEST(JSON, readsObjectsInTimeByTheirLength) {
    std::string bytes = "{\"0\":0";
    for (int i = 1; i < 300'000; ++i) {
        bytes += ",\"" + std::to_string(i) + "\":0";
    }
    const auto begin = std::clock();
    EXPECT_EQ(parseJSON(bytes + "}").size(), 300'000U);
    // A tenth of what comparing every key with every other takes.
    EXPECT_LT(std::clock() - begin, 20 * CLOCKS_PER_SEC);
}

} // namespace
} // namespace klarbox::test
