#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using Result = PrivilegedRemovalResult;

TEST(PrivilegedRemovalResult, writesOptionalKeysOnlyWhenPresent) {
    EXPECT_EQ((Result{.removedCount = 1, .bytes = 40960}).encoded(),
              R"({"removedCount":1,"failedCount":0,"bytes":40960})");
    EXPECT_EQ(Result::refused(SafetyViolation::protectedLocation).encoded(),
              R"({"removedCount":0,"failedCount":1,"bytes":0,"refusal":"protectedLocation"})");
    EXPECT_EQ(Result::failed("“a” is \xff busy\n").encoded(),
              "{\"removedCount\":0,\"failedCount\":1,\"bytes\":0,"
              "\"error\":\"“a” is \xef\xbf\xbd busy\\n\"}");
}

TEST(PrivilegedRemovalResult, readsWhatItWrites) {
    for (const auto violation : allCases<SafetyViolation>()) {
        const Result result{.removedCount = 3,
                            .failedCount = 2,
                            .bytes = INT64_MAX,
                            .refusal = violation,
                            .error = "The folder “a” couldn’t be opened."};
        EXPECT_EQ(Result::decode(result.encoded()), result);
    }
    EXPECT_EQ(Result::decode(R"({"removedCount":0,"failedCount":0,"bytes":0})"), Result{});
    EXPECT_EQ(Result::decode(R"({"bytes":1,"removedCount":0,"failedCount":0,"more":[],
                                 "error":null,"refusal":null})"),
              Result{.bytes = 1});
}

TEST(PrivilegedRemovalResult, rejectsEveryOtherDocument) {
    for (const auto *json : {
             "",
             "null",
             "[]",
             "{",
             R"({"removedCount":0,"failedCount":0})",
             R"({"removedCount":0,"failedCount":0,"bytes":"1"})",
             R"({"removedCount":0.5,"failedCount":0,"bytes":0})",
             R"({"removedCount":null,"failedCount":0,"bytes":0})",
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
