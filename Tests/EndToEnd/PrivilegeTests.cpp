#include "Tests/EndToEnd/World.hpp"

#include <csignal>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;

/// What the kernel says of a process: a line for each fact.
std::string status(pid_t pid) {
    return readFile("/proc/" + std::to_string(pid) + "/status");
}

class Privileges : public EndToEnd {};

TEST_F(Privileges, areThoseThatTheWorkTakesAndSplitBetweenTwoProcesses) {
    startHelper();
    if (!hasUsers()) {
        GTEST_SKIP() << "needs root, who has privileges to give up";
    }
    // Overriding permissions and deleting in sticky folders; looking at processes.
    const std::tuple<pid_t, std::string, std::string> cases[] = {
        {helper_->pid(), "000000000000000a", "0\t0\t0\t0"},
        {verifier(), "0000000000080000", "65534\t65534\t65534\t65534"},
    };
    for (const auto &[pid, capabilities, user] : cases) {
        EXPECT_THAT(status(pid),
                    AllOf(HasSubstr("\nUid:\t" + user + "\n"),
                          HasSubstr("\nCapInh:\t0000000000000000\nCapPrm:\t" + capabilities +
                                    "\nCapEff:\t" + capabilities + "\nCapBnd:\t" + capabilities +
                                    "\nCapAmb:\t0000000000000000\nNoNewPrivs:\t1\nSeccomp:\t2\n")));
    }
}

TEST_F(Privileges, endWithEitherProcess) {
    // Without the one there is nobody to verify peers; without the other nobody to verify them for.
    startHelper();
    const auto first = verifier();
    ::kill(first, SIGKILL);
    const auto outcome = helper_->finish();
    EXPECT_EQ(outcome.exitCode, 1) << outcome.err;
    helper_.reset();
    EXPECT_THAT(journal_->messages("connections", 1),
                Contains("The process that verifies peers has ended."));
    startHelper();
    const auto second = verifier();
    helper_->signal(SIGKILL);
    helper_->finish();
    helper_.reset();
    EXPECT_TRUE(eventually([&] { return ::kill(second, 0) != 0; }));
}

TEST_F(Privileges, ofAVerifierThatDoesNotAnswerAreNotWaitedForForEver) {
    startHelper();
    const auto pid = verifier();
    ::kill(pid, SIGSTOP);
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 3);
    ::kill(pid, SIGCONT);
    EXPECT_THAT(journal_->messages("connections", 1),
                Contains("refused user 0: The verification took too long."));
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 0);
}

} // namespace
} // namespace klarbox::test
