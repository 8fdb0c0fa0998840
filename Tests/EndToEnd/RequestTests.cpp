#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"

#include "Tests/EndToEnd/World.hpp"

#include <filesystem>
#include <tuple>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Result = PrivilegedRemovalResult;
using enum SafetyViolation;

class Requests : public EndToEnd {};

TEST_F(Requests, areAnsweredInTurn) {
    writeFile("/Users/ann/x", "kept");
    writeFile("/private/var/log/system.log.0.gz", "x");
    writeFile("/Library/Logs/DiagnosticReports/a.ips", "x");
    writeFile("/Library/Caches/some/a", "x");
    writeFile("/Library/Caches/some/b", std::string(5000, 'x'));
    writeFile("/Library/Caches/some/.git/config", "kept");
    std::filesystem::create_directory_symlink("/Users/ann", "/Library/Caches/out");
    const auto *beyond = "The operation couldn’t be completed. Invalid cross-device link";
    const std::tuple<std::string, std::string, Result> table[] = {
        {removeItem, "", Result::refused(notInsideRoot)},
        {removeItem, "/Library/Caches/some%00b", Result::refused(notInsideRoot)},
        {removeItem, "/" + std::string(4000, 'a'), Result::refused(notInsideRoot)},
        {removeItem, "/Library/Caches/out/x", Result::refused(symlinkEscape)},
        {removeContents, "/Library/Caches/out", Result::failed("Not a folder")},
        {removeContents, "/var/log", Result::refused(isRoot)},
        {removeItem, mountPoint, Result::failed(beyond)},
        {removeContents, "/Library/Caches/some", {2, 1, 12288, insideGitDirectory, {}}},
        {removeItem, "/var/log/system.log.0.gz", {.removedCount = 1, .bytes = 4096}},
        {removeItem, "/Library/Logs/DiagnosticReports/a.ips", {.removedCount = 1, .bytes = 4096}},
        {removeItem, "/Library/Caches/out", {.removedCount = 1}},
    };
    startHelper();
    std::vector<std::string> questions;
    std::string answers;
    for (const auto &[selector, path, answer] : table) {
        questions.insert(questions.end(), {selector, path});
        answers += answer.encoded() + "\n";
    }
    const auto outcome = ask(questions);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, answers);
    EXPECT_TRUE(exists("/Users/ann/x") && exists("/Library/Caches/some/.git/config"));
    EXPECT_EQ(journal_->messages("requests", std::size(table)).size(), std::size(table));
}

TEST_F(Requests, areLoggedInOneLineEach) {
    writeFile("/Library/Logs/a/b", "x");
    writeFile("/Library/Logs/a/c", std::string(512, 'x'));
    startHelper();
    ask({removeContents, "/Library/Logs/a", removeItem, "Library\nremoveItem \xff\\xff: removed 1",
         removeItem, "/Library/Logs/a"});
    EXPECT_THAT(
        journal_->messages("requests", 3),
        ElementsAre(
            "removeContents /Library/Logs/a: removed 2, failed 0, 8192 bytes",
            "removeItem Library\\nremoveItem \\xff\\\\xff: removed 1: removed 0, failed 1, 0 bytes",
            "removeItem /Library/Logs/a: removed 1, failed 0, 0 bytes"));
    EXPECT_THAT(journal_->entries(),
                Each(AllOf(HasSubstr("\nSUBSYSTEM=app.klarbox.Klarbox.Helper\n"),
                           HasSubstr("\nPRIORITY=5\n"), Not(HasSubstr("CODE_FILE")))));
}

TEST_F(Requests, thatAreNoMessagesEndTheConnection) {
    startHelper();
    for (const char *how : {"garbage", "oversized", "empty", "attachment", "selector", "unended"}) {
        EXPECT_EQ(run(foreign(std::string("raw ") + how)).exitCode, 3) << how;
    }
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 0);
}

TEST_F(Requests, areWorkedOnNoLongerThanSomebodyWaits) {
    const std::string folder = "/Library/Caches/many";
    constexpr int count = 100'000;
    const auto made = shell("mkdir " + folder + " && cd " + folder + " && seq " +
                            std::to_string(count) + " | xargs touch");
    ASSERT_EQ(made.exitCode, 0) << made.out;
    const auto left = [&] {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    startHelper();
    {
        const Running client(foreign("ask " + removeContents + " " + folder));
        ASSERT_TRUE(eventually([&] { return left() < count; }));
    }
    EXPECT_THAT(journal_->messages("requests", 1), ElementsAre(Not(HasSubstr("failed 0"))));
    EXPECT_GT(left(), 0);
}

} // namespace
} // namespace klarbox::test
