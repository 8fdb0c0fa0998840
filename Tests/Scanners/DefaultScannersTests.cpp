#include "KlarboxKit/Scanners/DefaultScanners.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <set>
#include <unistd.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

TEST(DefaultScanners, standInCatalogOrder) {
    std::vector<std::string> ids;
    for (const auto &scanner : defaultScanners()) {
        ids.push_back(scanner->info().id);
    }
    std::vector<std::string> catalog;
    for (const auto &info : CategoryCatalog::all()) {
        if (std::ranges::count(ids, info.id) > 0) {
            catalog.push_back(info.id);
        }
    }
    EXPECT_EQ(ids, catalog);
}

/// A disk on which every category that is found by walking files finds something.
TEST(DefaultScanners, findEverythingBelowTheDiskAndChangeNothing) {
    const std::string trash = "/.Trashes/" + std::to_string(::getuid());
    const TemporaryTree disk{
        {"home/Library/Caches/a/x", bytes(9000)},
        {"home/Library/Logs/a", bytes(9000)},
        {"home/.Trash/a", bytes(9000)},
        {"home/Library/Containers/com.apple.mail/Data/Library/Mail Downloads/a", bytes(9000)},
        {"home/Downloads/a.dmg", bytes(9000)},
        {"home/Library/Developer/Xcode/DerivedData/a/x", bytes(9000)},
        {"home/.npm/_cacache/a", bytes(9000)},
        {"home/code/P/DerivedData/a", bytes(9000)},
        {"home/.codex/sessions/a", bytes(9000), daysAgo(90)},
        {"Library/Caches/a", bytes(9000)},
        {"Library/Logs/a", bytes(9000)},
        {"Library/Logs/DiagnosticReports/a", bytes(9000)},
        {"private/var/log/a", bytes(9000)},
        {"Library/Developer/CoreSimulator/Caches/dyld/a/x", bytes(9000)},
        {"Volumes/V" + trash + "/a", bytes(9000)},
    };
    auto context = scanContext(disk / "home");
    context.settings.projectRoots = {"~/code"};
    const auto before = manifest(disk.root());
    std::set<std::string> ids;
    std::set<std::string> categories;
    for (const auto &scanner :
         defaultScanners(PrivilegedRoots::below(disk.root()), disk / "Volumes")) {
        ASSERT_TRUE(scanner->isRelevant(context) || scanner->scan(context, {}).items.empty());
        const auto scan = scanner->scan(context, {});
        EXPECT_EQ(scan.info, scanner->info());
        for (const auto &item : scan.items) {
            categories.insert(scan.id());
            EXPECT_TRUE(ids.insert(item.id).second) << item.id;
            ASSERT_TRUE(item.allowedRoot);
            EXPECT_TRUE(item.allowedRoot->path().starts_with(disk.root().path()));
            for (const auto &path : item.target.paths()) {
                EXPECT_TRUE((path.path() + "/").starts_with(item.allowedRoot->path() + "/"));
            }
        }
    }
    EXPECT_EQ(categories,
              (std::set<std::string>{"user-caches", "logs", "trash", "mail-downloads", "installers",
                                     "system-caches", "system-logs", "system-crash-reports",
                                     "xcode", "simulator-dyld-caches", "package-caches",
                                     "project-artifacts", "ai-sessions"}));
    EXPECT_EQ(manifest(disk.root()), before);
}

} // namespace
} // namespace klarbox::test
