#include "KlarboxKit/Foundation/CodeRequirement.hpp"
#include "KlarboxKit/Helper/HelperIdentity.hpp"

#include <sstream>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

const SigningInformation application{.endsInAnchor = true,
                                     .identifier = "app.klarbox.Klarbox",
                                     .teamID = "K7L4R9B0X2",
                                     .version = "1.0.0"};

TEST(CodeRequirement, isSatisfiedWhenEveryClauseHolds) {
    const auto requirement = CodeRequirement::parse(HelperIdentity::appRequirement());
    ASSERT_TRUE(requirement);
    EXPECT_TRUE(requirement->isSatisfiedBy(application));
    EXPECT_FALSE(requirement->isSatisfiedBy({}));
    const auto expectNone = [&](auto member, auto value) {
        auto other = application;
        other.*member = value;
        EXPECT_FALSE(requirement->isSatisfiedBy(other)) << value;
    };
    expectNone(&SigningInformation::endsInAnchor, false);
    expectNone(&SigningInformation::identifier, "app.klarbox.Klarbox.Helper");
    expectNone(&SigningInformation::identifier, "app.klarbox.klarbox");
    expectNone(&SigningInformation::teamID, "");
    expectNone(&SigningInformation::teamID, "K7L4R9B0X2 ");
}

TEST(CodeRequirement, isNoneWhenAnythingInItIsNotUnderstood) {
    for (const auto *text : {
             " anchor  apple\tgeneric\nand identifier \"app.klarbox.Klarbox\" ",
             "certificate leaf [ subject.OU ] = \"K7L4R9B0X2\" and anchor apple generic",
         }) {
        const auto requirement = CodeRequirement::parse(text);
        EXPECT_TRUE(requirement && requirement->isSatisfiedBy(application)) << text;
    }
    std::istringstream others(R"(
        anchor
        anchor apple
        anchor applegeneric
        anchor apple generic and
        and anchor apple generic
        anchor apple generic identifier "a"
        anchor apple generic or identifier "a"
        anchor apple generic and (identifier "a")
        not anchor apple generic
        identifier a
        identifier "a
        identifier ""
        identifier "a\"b"
        identifier "a" "b"
        identifier "a" /* comment */
        certificate leaf[subject.CN] = "a"
        certificate 1[subject.OU] = "a"
        certificate leaf[subject.OU] "a")");
    for (std::string text; std::getline(others, text);) {
        EXPECT_FALSE(CodeRequirement::parse(text)) << text; // the first one is empty
    }
    EXPECT_FALSE(CodeRequirement::parse(std::string_view("identifier \"a\0b\"", 16)));
}

} // namespace
} // namespace klarbox::test
