#include "Tests/EndToEnd/World.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <list>
#include <sstream>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

long statusValue(pid_t pid, const std::string &key) {
    const auto text = readFile("/proc/" + std::to_string(pid) + "/status");
    return std::stol(text.substr(text.find("\n" + key + ":") + key.size() + 2));
}

/// How many threads and descriptors a process has.
std::pair<long, long> holdings(pid_t pid) {
    const std::filesystem::directory_iterator open("/proc/" + std::to_string(pid) + "/fd");
    return {statusValue(pid, "Threads"), std::distance(begin(open), end(open))};
}

/// Clock ticks that a process has been running for.
long processorTime(pid_t pid) {
    const auto stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const auto fields = words(stat.substr(stat.rfind(')') + 1));
    return std::stol(fields.at(11)) + std::stol(fields.at(12));
}

class Load : public EndToEnd {
protected:
    /// Expects that answers to this user take hardly longer while these programs run.
    void expectNoDelay(const char *what, const std::vector<Launch> &programs,
                       std::optional<uid_t> user = std::nullopt) const {
        constexpr long bound = isSanitized ? 1'000'000 : 100'000;
        long delay = bound;
        // What else the machine does can delay an answer too, but not every time.
        for (int attempt = 0; attempt < 3 && delay >= bound; ++attempt) {
            const auto undisturbed = longestAnswer(user);
            std::list<Running> running;
            for (const auto &program : programs) {
                running.emplace_back(program);
            }
            delay = longestAnswer(user) - undisturbed;
        }
        EXPECT_LT(delay, bound) << what;
    }

    /// A signed program that takes long to verify, and is no longer what was signed.
    static std::string installLarge() {
        const auto large = installSigned("packet-client", "large");
        std::filesystem::resize_file(large, 60 << 20);
        return large;
    }

    /// Of a client that removes small files, pausing between them; in microseconds.
    long longestAnswer(std::optional<uid_t> user) const {
        const auto outcome = run(foreign("series 50 /Library/Caches 5", user));
        EXPECT_EQ(outcome.exitCode, 0)
            << outcome.err << testing::PrintToString(journal_->messages("connections"));
        long median = 0;
        long longest = 0;
        std::istringstream(outcome.out) >> median >> longest;
        return longest;
    }
};

TEST_F(Load, ofManyClientsIsAnsweredAndLoggedExactlyOnce) {
    startHelper();
    const std::size_t requests = isSanitized ? 20 : 200;
    std::list<Running> clients;
    for (int client = 0; client < 64; ++client) {
        clients.emplace_back(foreign(fmt::format("series {} /Library/Caches 0", requests - 1)));
    }
    for (auto &client : clients) {
        const auto outcome = client.finish();
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    auto lines = journal_->messages("requests", 64 * requests);
    EXPECT_EQ(lines.size(), 64 * requests);
    std::ranges::sort(lines);
    EXPECT_EQ(std::ranges::adjacent_find(lines), lines.end());
    EXPECT_TRUE(std::filesystem::is_empty("/Library/Caches"));
}

TEST_F(Load, ofHostilePeersDelaysNobody) {
    const auto unsignedClient = install("packet-client", "unsigned");
    const auto large = installLarge();
    startHelper();
    const std::pair<const char *, std::string> cases[] = {
        {"verified ones that misbehave", application_ + " hostile 1000000"},
        {"unsigned ones", unsignedClient + " hostile 1000000"},
        {"verified ones that say nothing", application_ + " silent 50"},
        {"ones whose programs take long to verify", large + " silent 20"},
    };
    for (const auto &[what, command] : cases) {
        const Launch launch{.arguments = words(command)};
        expectNoDelay(what, {launch, launch});
    }
}

TEST_F(Load, ofAThousandHostilePeersLeavesNothingBehind) {
    const auto unsignedClient = install("packet-client", "unsigned");
    startHelper();
    ask({removeItem, "/Library/Caches/none"}); // opens the log
    const auto pid = helper_->pid();
    const auto before = holdings(pid); // its connection perhaps among them
    // Some memory is allocated once and kept; what leaked would be more after every round.
    auto memory = statusValue(pid, "VmRSS");
    long leastGrowth = 20L * 1024;
    for (int round = 0; round < 4; ++round) {
        for (const auto &program : {application_, unsignedClient}) {
            EXPECT_EQ(run({.arguments = {program, "hostile", "1000"}}).exitCode, 0);
        }
        // Those that end in the middle of everything.
        for (int i = 0; i < 50; ++i) {
            Running(foreign("silent 3")).signal(SIGKILL);
        }
        const auto now = statusValue(pid, "VmRSS");
        leastGrowth = std::min(leastGrowth, now - std::exchange(memory, now));
    }
    EXPECT_TRUE(eventually([&] {
        const auto [threads, descriptors] = holdings(pid);
        return threads <= before.first && descriptors <= before.second;
    })) << testing::PrintToString(holdings(pid))
        << " threads and descriptors instead of " << testing::PrintToString(before);
    if (!isSanitized) {
        EXPECT_LT(leastGrowth, 256);
        EXPECT_LT(memory, 20 * 1024);
    }
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 0);
    const auto taken = processorTime(pid);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(processorTime(pid), taken) << "an idle helper is not idle";
}

TEST_F(Load, ofOneUserKeepsNoOtherOut) {
    startHelper();
    ask({removeItem, "/Library/Caches/none"}); // sanitizers start threads with the first one
    const auto idle = holdings(helper_->pid()).first;
    Running crowd(foreign("silent 120"));
    ASSERT_EQ(crowd.readLine(), "connected");
    // Others of the same user take the place of those that have been silent for longest.
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 0);
    constexpr long mostOfOneUser = 96;
    EXPECT_TRUE(eventually([&] { return holdings(helper_->pid()).first <= idle + mostOfOneUser; }));
    if (!hasUsers()) {
        GTEST_SKIP() << "the rest needs root, for an ordinary user beside it";
    }
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}, ann).exitCode, 0);
    std::list<Running> crowds;
    for (const uid_t user : {ann + 1, ann + 2, ann + 3}) {
        ASSERT_EQ(crowds.emplace_back(foreign("silent 120", user)).readLine(), "connected");
    }
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}, ann).exitCode, 0);
    crowds.clear();
    expectNoDelay("another user's crowd", {foreign("hostile 1000000")}, ann);
}

TEST_F(Load, ofVerificationsTakesHalfTheCoresAndEndsWithThePeers) {
    const auto large = installLarge();
    startHelper();
    const auto pid = verifier();
    const auto idle = statusValue(pid, "Threads");
    const long halfTheCores = std::max(std::thread::hardware_concurrency() / 2, 1U);
    long most = 0;
    long before = 0;
    {
        const Running crowd({.arguments = words(large + " silent 50")});
        eventually(
            [&] {
                // A thread that just ended may still be counted beside the one that follows it.
                const auto now = statusValue(pid, "Threads") - idle;
                most = std::max(most, std::min(now, std::exchange(before, now)));
                return most > halfTheCores;
            },
            std::chrono::milliseconds(500));
    }
    EXPECT_EQ(most, halfTheCores);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto taken = processorTime(pid);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LE(processorTime(pid), taken + 1) << "works for peers that are gone";
}

} // namespace
} // namespace klarbox::test
