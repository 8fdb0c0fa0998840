#include "Tests/EndToEnd/World.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace klarbox::test {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::Not;

json result(int removed, int failed, int bytes) {
    return {{"removedCount", removed}, {"failedCount", failed}, {"bytes", bytes}};
}

json refused(const char *violation) {
    auto answer = result(0, 1, 0);
    answer["refusal"] = violation;
    return answer;
}

json failed(const std::string &message) {
    auto answer = result(0, 1, 0);
    answer["error"] = message;
    return answer;
}

/// A path of exactly so many bytes below /Library/Caches, to a file that is there.
std::string fileAtPathOf(std::size_t length) {
    std::string path = "/Library/Caches";
    while (length - path.size() > 202) {
        path += "/" + std::string(100, 'd');
    }
    path += "/" + std::string(length - path.size() - 1, 'f');
    writeFile(path, "x");
    return path;
}

class Requests : public EndToEnd {};

TEST_F(Requests, haveTheOutcomesThatTheHandlerKnows) {
    writeFile("/Users/ann/x", "kept");
    writeFile("/Library/CachesOld/x", "kept");
    writeFile("/private/var/log/system.log.0.gz", "x");
    writeFile("/Library/Logs/DiagnosticReports/a.ips", "x");
    std::filesystem::create_directory_symlink("/Users/ann", "/Library/Caches/out");
    writeFile("/Library/Caches/some/a", "x");
    writeFile("/Library/Caches/some/b", std::string(5000, 'x'));
    writeFile("/Library/Caches/some/.git/config", "kept");
    std::filesystem::create_directories("/Library/Caches/empty");
    std::filesystem::create_directory_symlink("some", "/Library/Caches/link");
    writeFile("/Library/Caches/a file", "x");
    const auto longest = fileAtPathOf(1023);
    const auto tooLong = fileAtPathOf(1024);
    const auto partly = [] {
        auto answer = result(2, 1, 12288);
        answer["refusal"] = "insideGitDirectory";
        return answer;
    }();
    const auto beyond = std::string("The operation couldn’t be completed. ") + std::strerror(EXDEV);

    const std::vector<std::tuple<std::string, std::string, json>> table{
        {removeItem, "Library/Caches/some", refused("notInsideRoot")},
        {removeItem, "", refused("notInsideRoot")},
        {removeItem, "/Library/Caches/a%00b", refused("notInsideRoot")},
        {removeItem, tooLong, refused("notInsideRoot")},
        {removeItem, "/" + std::string(4000, 'a'), refused("notInsideRoot")},
        {removeItem, "/Library/CachesOld/x", refused("notInsideRoot")},
        {removeItem, "/Library/Caches/../CachesOld/x", refused("notInsideRoot")},
        {removeItem, "/Library/Caches/none/x", refused("notFound")},
        {removeItem, "/Library/Caches/none", refused("notFound")},
        {removeItem, "/Library/Caches/out/x", refused("symlinkEscape")},
        {removeItem, "/Library/Caches/out/none/x", refused("notFound")},
        {removeContents, "/Library/Caches/out", failed("Not a folder")},
        {removeContents, "/Library/Caches/link", failed("Not a folder")},
        {removeContents, "/Library/Caches/a file", failed("Not a folder")},
        {removeItem, "/Library/Caches", refused("isRoot")},
        {removeContents, "/Library/Caches/", refused("isRoot")},
        {removeContents, "/var/log", refused("isRoot")},
        {removeItem, "/Library/Caches/some/.git/config", refused("insideGitDirectory")},
        {removeItem, mountPoint, failed(beyond)},
        {removeContents, "/Library/Caches/empty", result(0, 0, 0)},
        {removeContents, "/Library/Caches/some", partly},
        {removeItem, "/Library/Caches/a file", result(1, 0, 4096)},
        {removeItem, "/var/log/system.log.0.gz", result(1, 0, 4096)},
        {removeItem, "/Library/Logs/DiagnosticReports/a.ips", result(1, 0, 4096)},
        {removeItem, longest, result(1, 0, 4096)},
        {removeItem, "/Library/Caches/out", result(1, 0, 0)},
    };
    startHelper();
    std::vector<std::string> questions;
    for (const auto &[selector, path, _] : table) {
        questions.insert(questions.end(), {selector, path});
    }
    const auto outcome = ask(questions);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    std::istringstream answers(outcome.out);
    for (const auto &[selector, path, expected] : table) {
        std::string answer;
        std::getline(answers, answer);
        EXPECT_EQ(answer.empty() ? json() : json::parse(answer), expected)
            << selector << " " << path;
    }
    for (const auto &kept : {std::string("/Users/ann/x"), std::string("/Library/CachesOld/x"),
                             std::string("/Library/Caches/some/.git/config"), tooLong}) {
        EXPECT_TRUE(exists(kept)) << kept;
    }
    EXPECT_EQ(journal_->messages("requests", table.size()).size(), table.size());
}

TEST_F(Requests, areLoggedInOneLineEach) {
    writeFile("/Library/Logs/a/b", "x");
    writeFile("/Library/Logs/a/c", std::string(512, 'x'));
    startHelper();
    ask({removeContents, "/Library/Logs/a", removeItem, "Library\nremoveItem /x: removed 1",
         removeItem, "/Library/Logs/a"});
    EXPECT_THAT(
        journal_->messages("requests", 3),
        ElementsAre("removeContents /Library/Logs/a: removed 2, failed 0, 8192 bytes",
                    "removeItem Library\\nremoveItem /x: removed 1: removed 0, failed 1, 0 bytes",
                    "removeItem /Library/Logs/a: removed 1, failed 0, 0 bytes"));
    for (const auto &entry : journal_->entries()) {
        EXPECT_EQ(entry.at("SUBSYSTEM"), "app.klarbox.Klarbox.Helper");
        EXPECT_EQ(entry.at("PRIORITY"), "5");
    }
}

TEST_F(Requests, thatAreNoMessagesEndTheConnection) {
    startHelper();
    for (const char *how :
         {"garbage", "oversized", "empty", "attachment", "vanish", "selector", "unended"}) {
        EXPECT_EQ(run({.arguments = {application_, "raw", how}}).exitCode, 3) << how;
    }
    EXPECT_EQ(ask({removeItem, "/Library/Caches/none"}).exitCode, 0);
}

// MARK: Exchanged links

/// Exchanges two names over and over for as long as it lives.
class Exchanger {
public:
    Exchanger(std::string one, std::string other)
        : thread_([this, one = std::move(one), other = std::move(other)](std::stop_token stop) {
              while (!stop.stop_requested()) {
                  if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(),
                                  RENAME_EXCHANGE) == 0) {
                      ++count_;
                  }
                  // Long enough for a request to get anywhere between two exchanges.
                  std::this_thread::sleep_for(std::chrono::microseconds(count_ % 97));
              }
          }) {}

    long count() const { return count_; }

private:
    std::atomic<long> count_ = 0;
    std::jthread thread_;
};

TEST_F(Requests, neverReachBeyondTheFoldersWhileLinksAreExchanged) {
    struct Attack {
        std::string exchanged; ///< a folder that takes turns with a link out of the root
        std::string outside;   ///< where the link leads
        std::string selector;
        std::string path;
    };
    const std::string evil = "/Library/Caches/evil";
    const std::vector<Attack> attacks{
        {evil, "/Users/ann/outside", removeContents, evil},
        {evil, "/Users/ann/outside", removeItem, evil + "/canary"},
        {evil, "/Users/ann/outside", removeContents, evil + "/deeper"},
        {evil + "/deeper", "/Users/ann/outside/deeper", removeItem, evil},
        {evil + "/deeper", "/Users/ann/outside/deeper", removeContents, evil},
    };
    startHelper();
    for (const auto &attack : attacks) {
        SCOPED_TRACE(attack.selector + " " + attack.path + " exchanging " + attack.exchanged);
        const std::string canary = "/Users/ann/outside/canary";
        const std::string deeper = "/Users/ann/outside/deeper/canary";
        writeFile(canary, "kept");
        writeFile(deeper, "kept");
        const auto link = "/Library/Caches/link";
        emptyFolder("/Library/Caches");
        std::filesystem::create_directory_symlink(attack.outside, link);
        Running client({.arguments = {application_, "repeat", attack.selector, attack.path}});
        long count = 0;
        {
            const Exchanger exchanger(attack.exchanged, link);
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
            while (std::chrono::steady_clock::now() < end) {
                // Whatever was removed comes back, so that there is always something to race for.
                std::error_code raced;
                for (const auto &folder : {attack.exchanged, evil, evil + "/deeper"}) {
                    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(folder))) {
                        std::filesystem::create_directory(folder, raced);
                        for (const char *name : {"/canary", "/1", "/2", "/3"}) {
                            // Exclusive: through a link this would write to the canaries.
                            ::close(::open((folder + name).c_str(), O_CREAT | O_EXCL, 0600));
                        }
                    }
                }
            }
            count = exchanger.count();
        }
        const auto outcome = client.finish();
        EXPECT_EQ(outcome.exitCode, 0)
            << outcome.err << testing::PrintToString(journal_->messages("connections", 0));
        EXPECT_GT(std::atoi(outcome.out.c_str()), 20);
        EXPECT_GT(count, 100);
        EXPECT_EQ(readFile(canary), "kept");
        EXPECT_EQ(readFile(deeper), "kept");
    }
    // The race was one: requests found a folder at times and a link at others.
    std::set<bool> successes;
    for (const auto &line : journal_->messages("requests", 1)) {
        successes.insert(line.find("removed 0") == std::string::npos);
    }
    EXPECT_THAT(successes, ElementsAre(false, true));
}

} // namespace
} // namespace klarbox::test
