#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/AISessionsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

const auto old = daysAgo(90);

TEST(AISessionsScanner, offersOldLogsOfEachToolTogether) {
    const std::string projects = ".claude/projects/";
    const auto cutoff = daysAgo(60);
    const TemporaryTree home{
        {projects + "b/old.jsonl", bytes(9000), cutoff - 1s},
        {projects + "b/older.jsonl", bytes(9000), cutoff - 1us},
        {projects + "b/edge.jsonl", bytes(9000), cutoff},
        {projects + "b/new.jsonl", bytes(9000), scanTime},
        {projects + "a.jsonl", bytes(9000), old},
        {projects + "aged/new.jsonl", bytes(9000), scanTime},
        {projects + "aged", directory(), old},
        {projects + "linked", link("../../elsewhere"), old},
        {projects + "fresh", link("../../elsewhere"), scanTime},
        {projects + ".DS_Store", bytes(9000), old},
        {"elsewhere/old.jsonl", bytes(90'000), old},
        {projects + "1/2/3/4/5/6/7/deep.jsonl", bytes(9000), old},
        {projects + "1/2/3/4/5/6/7/8/deeper.jsonl", bytes(9000), old},
        {".codex/archived_sessions/one", bytes(9000), old},
        {".codex/sessions/new", bytes(9000), scanTime},
    };
    auto context = scanContext(home.root());
    const auto scan = AISessionsScanner().scan(context, {});
    const auto root = home / ".claude/projects";
    std::vector<FileURL> files;
    for (const char *path :
         {"1/2/3/4/5/6/7/deep.jsonl", "a.jsonl", "b/old.jsonl", "b/older.jsonl", "linked"}) {
        files.push_back(root.appending(path));
    }
    const KlarboxItem claude{
        .id = "ai-sessions:.claude/projects",
        .title = "Claude Code sessions",
        .detail = "~/.claude/projects",
        .target = KlarboxTarget::items(files),
        .allowedRoot = root,
        .size = DiskUsage::allocatedSize(files),
        .tier = SafetyTier::review,
        .note = "5 log files older than 60 days. You'd lose the ability to resume those sessions.",
        .isSelectedByDefault = false,
    };
    ASSERT_EQ(scan.items.size(), 2U);
    EXPECT_EQ(scan.items[0], claude);
    EXPECT_EQ(scan.items[1].title, "Codex archived sessions");
    EXPECT_EQ(scan.items[1].note,
              "1 log file older than 60 days. You'd lose the ability to resume those sessions.");
    EXPECT_THAT(scan.issues, IsEmpty());

    // The search does not stop, so the item names every file even of a scan that does.
    EXPECT_EQ(AISessionsScanner().scan(context, stopped()).items, scan.items);
    context.minimumSize = claude.size;
    EXPECT_THAT(AISessionsScanner().scan(context, {}).items, ElementsAre(claude));
    context.minimumSize += 1;
    EXPECT_THAT(AISessionsScanner().scan(context, {}).items, IsEmpty());
}

TEST(AISessionsScanner, isRelevantWhereAnyToolKeepsLogs) {
    for (const char *path : {".claude/projects", ".codex/sessions", ".codex/archived_sessions"}) {
        const TemporaryTree home{{path, directory()}};
        EXPECT_TRUE(AISessionsScanner().isRelevant(scanContext(home.root()))) << path;
    }
    const TemporaryTree home{{".claude/x", bytes(1)}, {".codex/x", bytes(1)}};
    EXPECT_FALSE(AISessionsScanner().isRelevant(scanContext(home.root())));
}

} // namespace
} // namespace klarbox::test
