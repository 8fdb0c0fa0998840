#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using Result = PrivilegedRemovalResult;

TEST(PrivilegedRemovalResult, isWrittenWithOptionalKeysOnlyWhenPresentAndReadBack) {
    const std::pair<Result, const char *> cases[] = {
        {{.removedCount = 1, .bytes = 40960},
         R"({"removedCount":1,"failedCount":0,"bytes":40960})"},
        {Result::refused(SafetyViolation::protectedLocation),
         R"({"removedCount":0,"failedCount":1,"bytes":0,"refusal":"protectedLocation"})"},
        {Result::failed("“a” is busy\n"),
         R"({"removedCount":0,"failedCount":1,"bytes":0,"error":"“a” is busy\n"})"},
    };
    for (const auto &[result, json] : cases) {
        EXPECT_EQ(result.encoded(), json);
        EXPECT_EQ(Result::decode(json), result);
    }
    for (const auto violation : allCases<SafetyViolation>()) {
        const Result result{3, 2, INT64_MAX, violation, "The folder “a” couldn’t be opened."};
        EXPECT_EQ(Result::decode(result.encoded()), result);
    }
    EXPECT_EQ(Result::decode(Result::failed("\xff").encoded()), Result::failed("\uFFFD"));
    EXPECT_EQ(Result::decode(R"({"bytes":1,"removedCount":0,"failedCount":0,"more":[],
                                 "error":null,"refusal":null})"),
              Result{.bytes = 1});
}

TEST(PrivilegedRemovalResult, isNothingElse) {
    for (const auto *json : {
             "",
             "null",
             "[]",
             R"({"removedCount":0,"failedCount":0})",
             R"({"removedCount":0,"failedCount":0,"bytes":"1"})",
             R"({"removedCount":0.5,"failedCount":0,"bytes":0})",
             R"({"removedCount":0,"failedCount":0,"bytes":9223372036854775808})",
             R"({"removedCount":0,"failedCount":0,"bytes":0,"refusal":"NotFound"})",
             R"({"removedCount":0,"failedCount":0,"bytes":0,"refusal":3})",
             R"({"removedCount":0,"failedCount":0,"bytes":0,"error":{}})",
             R"({"removedCount":0,"failedCount":0,"bytes":0} trailing)",
         }) {
        EXPECT_THROW(Result::decode(json), PlatformError) << json;
    }
}

} // namespace
} // namespace klarbox::test
