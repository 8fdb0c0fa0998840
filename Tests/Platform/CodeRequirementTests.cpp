#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Platform/CodeSigning.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

const SigningInformation application{.endsInAnchor = true,
                                     .identifier = "app.klarbox.Klarbox",
                                     .teamID = "K7L4R9B0X2",
                                     .version = "1.0.0"};

TEST(CodeRequirement, isSatisfiedWhenEveryClauseHolds) {
    EXPECT_EQ(HelperIdentity::appRequirement(),
              "anchor apple generic and identifier \"app.klarbox.Klarbox\" and certificate "
              "leaf[subject.OU] = \"K7L4R9B0X2\"");
    const auto requirement = CodeRequirement::parse(HelperIdentity::appRequirement());
    ASSERT_TRUE(requirement);
    EXPECT_TRUE(requirement->isSatisfiedBy(application));
    const auto but = [](auto &&change) {
        auto information = application;
        change(information);
        return information;
    };
    const std::vector<SigningInformation> others{
        {},
        but([](auto &i) { i.endsInAnchor = false; }),
        but([](auto &i) { i.identifier = "app.klarbox.Klarbox.Helper"; }),
        but([](auto &i) { i.identifier = "app.klarbox.klarbox"; }),
        but([](auto &i) { i.teamID = ""; }),
        but([](auto &i) { i.teamID = "K7L4R9B0X2 "; }),
    };
    for (const auto &other : others) {
        EXPECT_FALSE(requirement->isSatisfiedBy(other)) << other.identifier << other.teamID;
    }
}

TEST(CodeRequirement, isNoneWhenAnythingInItIsNotUnderstood) {
    for (const std::string text : {
             "identifier \"app.klarbox.Klarbox\"",
             " anchor  apple\tgeneric\nand identifier \"app.klarbox.Klarbox\" ",
             "certificate leaf [ subject.OU ] = \"K7L4R9B0X2\" and anchor apple generic",
         }) {
        const auto requirement = CodeRequirement::parse(text);
        ASSERT_TRUE(requirement) << text;
        EXPECT_TRUE(requirement->isSatisfiedBy(application)) << text;
    }
    using namespace std::string_literals;
    for (const std::string &text : {
             ""s,
             "anchor"s,
             "anchor apple"s,
             "anchor applegeneric"s,
             "anchor apple generic and"s,
             "and anchor apple generic"s,
             "anchor apple generic identifier \"a\""s,
             "anchor apple generic or identifier \"a\""s,
             "not anchor apple generic"s,
             "identifier a"s,
             "identifier \"a"s,
             "identifier \"\""s,
             "identifier \"a\\\"b\""s,
             "identifier \"a\0b\""s,
             "identifier \"a\" \"b\""s,
             "identifier \"a\" /* comment */"s,
             "certificate leaf[subject.CN] = \"a\""s,
             "certificate 1[subject.OU] = \"a\""s,
             "certificate leaf[subject.OU] \"a\""s,
             "anchor apple generic and (identifier \"a\")"s,
         }) {
        EXPECT_FALSE(CodeRequirement::parse(text)) << text;
    }
}

} // namespace
} // namespace klarbox::test
