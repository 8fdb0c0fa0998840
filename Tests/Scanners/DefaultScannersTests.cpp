#include "KlarboxKit/Scanners/DefaultScanners.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <set>
#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::Contains;
using testing::Not;

/// A disk on which every category that is found by walking files finds something. Each offers what
/// reaches the minimum size and nothing below it.
TEST(DefaultScanners, findEverythingBelowTheDiskAndChangeNothing) {
    const TemporaryTree disk{
        {"home/Library/Containers/com.apple.mail/Data/Library/Mail Downloads/a", bytes(9000)},
        {"home/.codex/sessions/a", bytes(9000), daysAgo(90)},
        {"Volumes/V/.Trashes/" + std::to_string(::getuid()) + "/a", bytes(9000)},
    };
    addFiles(disk, "home/",
             "Library/Caches/a/x Library/Logs/a .Trash/a Downloads/a.dmg .npm/_cacache/a "
             "Library/Developer/Xcode/DerivedData/a/x Library/Developer/CoreSimulator/Caches/a "
             "Library/Containers/gone/x code/P/node_modules/m/ios/build/a code/P/package.json");
    addFiles(disk, "",
             "Library/Caches/a Library/Logs/a Library/Logs/DiagnosticReports/a private/var/log/a "
             "Library/Developer/CoreSimulator/Caches/dyld/a/x");
    auto context = scanContext(disk / "home");
    context.settings.projectRoots = {"~/code"};
    const auto before = manifest(disk.root());
    // What these look at is small, and half of what they offer together would mislead.
    const auto quick = words("trash mail-downloads installers system-crash-reports ai-sessions");
    std::set<std::string> ids;
    std::set<std::string> categories;
    auto expected = CategoryCatalog::all().begin();
    for (const auto &scanner :
         defaultScanners(PrivilegedRoots::below(disk.root()), disk / "Volumes")) {
        const auto scan = scanner->scan(context, {});
        SCOPED_TRACE(scan.id());
        EXPECT_TRUE(scanner->isRelevant(context) || scan.items.empty());
        ASSERT_NE(expected, CategoryCatalog::all().end());
        EXPECT_EQ(scanner->info(), *expected++);
        EXPECT_EQ(scan.info, scanner->info());
        EXPECT_EQ(scanner->scan(context, stopped()).items.size(),
                  std::ranges::count(quick, scan.id()) > 0 ? scan.items.size() : 0);
        for (const auto &item : scan.items) {
            auto strict = context;
            strict.minimumSize = item.size;
            EXPECT_THAT(scanner->scan(strict, {}).items, Contains(item));
            strict.minimumSize += 1;
            EXPECT_THAT(scanner->scan(strict, {}).items, Not(Contains(item)));
            categories.insert(scan.id());
            EXPECT_TRUE(ids.insert(item.id).second) << item.id;
            ASSERT_TRUE(item.allowedRoot);
            EXPECT_TRUE(item.allowedRoot->path().starts_with(disk.root().path()));
            for (const auto &path : item.target.paths()) {
                EXPECT_TRUE((path.path() + "/").starts_with(item.allowedRoot->path() + "/"));
                EXPECT_TRUE(ids.insert(path.path()).second) << "offered twice: " << path.path();
            }
        }
    }
    EXPECT_EQ(expected, CategoryCatalog::all().end());
    EXPECT_THAT(categories,
                testing::UnorderedElementsAreArray(words(
                    "user-caches logs trash mail-downloads installers system-caches system-logs "
                    "system-crash-reports xcode simulator-dyld-caches package-caches "
                    "project-artifacts ai-sessions orphaned-containers")));
    EXPECT_EQ(manifest(disk.root()), before);
}

} // namespace
} // namespace klarbox::test
