#include "Tests/EndToEnd/World.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// The answer to a request as it crosses the wire.
std::string answer(int removed, int failed, int bytes, const char *key = "",
                   const std::string &reason = "") {
    return fmt::format(R"({{"removedCount":{},"failedCount":{},"bytes":{}{}}})", removed, failed,
                       bytes, *key == '\0' ? "" : fmt::format(R"(,"{}":"{}")", key, reason));
}

std::string refused(const char *violation) {
    return answer(0, 1, 0, "refusal", violation);
}

std::string failed(const std::string &message) {
    return answer(0, 1, 0, "error", message);
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
    const auto beyond = std::string("The operation couldn’t be completed. ") + std::strerror(EXDEV);

    const std::array<std::string, 3> table[] = {
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
        {removeContents, "/Library/Caches/empty", answer(0, 0, 0)},
        {removeContents, "/Library/Caches/some",
         answer(2, 1, 12288, "refusal", "insideGitDirectory")},
        {removeItem, "/Library/Caches/a file", answer(1, 0, 4096)},
        {removeItem, "/var/log/system.log.0.gz", answer(1, 0, 4096)},
        {removeItem, "/Library/Logs/DiagnosticReports/a.ips", answer(1, 0, 4096)},
        {removeItem, longest, answer(1, 0, 4096)},
        {removeItem, "/Library/Caches/out", answer(1, 0, 0)},
    };
    startHelper();
    std::vector<std::string> questions;
    std::string answers;
    for (const auto &[selector, path, answer] : table) {
        questions.insert(questions.end(), {selector, path});
        answers += answer + "\n";
    }
    const auto outcome = ask(questions);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, answers);
    for (const std::string &kept :
         {"/Users/ann/x"s, "/Library/CachesOld/x"s, "/Library/Caches/some/.git/config"s, tooLong}) {
        EXPECT_TRUE(exists(kept)) << kept;
    }
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
    const auto made =
        shell(fmt::format("mkdir {0} && cd {0} && seq {1} | xargs touch", folder, count));
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

TEST_F(Requests, neverReachBeyondTheFoldersWhileLinksAreExchanged) {
    const std::string outside = "/Users/ann/outside";
    const std::string canary(1'000'000, 'k');
    const std::string evil = "/Library/Caches/evil";
    const auto link = "/Library/Caches/link";
    // A folder that takes turns with a link out of the root, and what is asked meanwhile.
    const std::array<std::string, 3> attacks[] = {
        {evil, removeContents, evil},
        {evil, removeItem, evil + "/canary"},
        {evil, removeContents, evil + "/deeper"},
        {evil + "/deeper", removeItem, evil},
        {evil + "/deeper", removeContents, evil},
    };
    startHelper();
    for (const auto &[exchanged, selector, path] : attacks) {
        SCOPED_TRACE(selector + " " + path + " exchanging " + exchanged);
        // Far more entries and bytes than there ever are inside.
        for (const auto &folder : {outside, outside + "/deeper"}) {
            for (const char *name : {"a", "b", "c", "d", "e", "f", "g", "canary"}) {
                writeFile(folder + "/" + name, canary);
            }
        }
        emptyFolder("/Library/Caches");
        std::filesystem::create_directory_symlink(outside + exchanged.substr(evil.size()), link);
        Running client(foreign("repeat " + selector + " " + path));
        std::atomic<long> count = 0;
        {
            const std::jthread exchanger([&, &exchanged = exchanged](const std::stop_token &stop) {
                while (!stop.stop_requested()) {
                    const int failed =
                        ::renameat2(AT_FDCWD, exchanged.c_str(), AT_FDCWD, link, RENAME_EXCHANGE);
                    count += failed == 0 ? 1 : 0;
                    // Long enough for a request to get anywhere between two exchanges.
                    std::this_thread::sleep_for(std::chrono::microseconds(count % 97));
                }
            });
            const auto begin = std::chrono::steady_clock::now();
            const auto isWithin = [&](auto limit) {
                return std::chrono::steady_clock::now() - begin < limit;
            };
            while (isWithin(500ms) || (count <= 100 && isWithin(20s))) {
                // Whatever was removed comes back, so that there is always something to race for.
                std::error_code raced;
                for (const auto &folder : {exchanged, evil, evil + "/deeper"}) {
                    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(folder))) {
                        std::filesystem::create_directory(folder, raced);
                        for (const char *name : {"/canary", "/1", "/2", "/3"}) {
                            // Exclusive: through a link this would write to the canaries.
                            ::close(::open((folder + name).c_str(), O_CREAT | O_EXCL, 0600));
                        }
                    }
                }
            }
        }
        const auto outcome = client.finish();
        EXPECT_EQ(outcome.exitCode, 0)
            << outcome.err << testing::PrintToString(journal_->messages("connections"));
        std::istringstream numbers(outcome.out);
        long requests = 0;
        std::size_t entries = 0;
        std::size_t bytes = 0;
        EXPECT_TRUE(numbers >> requests >> entries >> bytes) << outcome.out;
        EXPECT_GT(requests, 20);
        EXPECT_LE(entries, 6U); // the four files, the other folder and the link in its place
        EXPECT_LT(bytes, canary.size());
        EXPECT_GT(count, 100);
        EXPECT_EQ(readFile(outside + "/canary"), canary);
        EXPECT_EQ(readFile(outside + "/deeper/canary"), canary);
    }
    // The race was one: requests found a folder at times and a link at others.
    EXPECT_THAT(journal_->messages("requests", 1),
                AllOf(Contains(HasSubstr("removed 0")), Contains(Not(HasSubstr("removed 0")))));
}

} // namespace
} // namespace klarbox::test
