#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(InstallersScanner, offersInstallersWithTheirAge) {
    struct Row {
        std::string name;
        std::chrono::microseconds age;
        std::string note; ///< empty: not offered
    };
    const Row rows[] = {
        {"a.dmg", 23h, "Downloaded today"},
        {"b.pkg", 24h, "Downloaded 1 days ago"},
        {"c.mpkg", 240h, "Downloaded 10 days ago"},
        {"d.xip", -48h, "Downloaded today"},
        {"e.iso", 48h - 1us, "Downloaded 1 days ago"},
        {"Tool.PKG", 48h, "Downloaded 2 days ago"},
        {"image.Iso", 0h, "Downloaded today"},
        {"two.dots.dmg", 0h, "Downloaded today"},
        {"notes.dmg.txt", 0h, ""},
        {"archive.zip", 0h, ""},
        {"dmg", 0h, ""},
        {"x.dmg2", 0h, ""},
        {"x.", 0h, ""},
    };
    const TemporaryTree home{{"Downloads/sub/inner.dmg", bytes(5000)}};
    for (const auto &row : rows) {
        home.add({"Downloads/" + row.name, bytes(5000), scanTime - row.age});
    }
    home.add({"Downloads/folder.pkg/Contents/data", bytes(90'000)});
    auto context = scanContext(home.root());
    const auto scan = InstallersScanner().scan(context, stopped());
    EXPECT_EQ(titles(scan).front(), "folder.pkg") << "a package folder is measured as a whole";
    std::size_t offered = 1;
    for (const auto &row : rows) {
        if (!row.note.empty()) {
            ++offered;
            const auto url = (home / "Downloads").appending(row.name);
            EXPECT_EQ(itemWithID(scan, "installers:" + row.name),
                      (KlarboxItem{
                          .id = "installers:" + row.name,
                          .title = row.name,
                          .detail = "~/Downloads/" + row.name,
                          .target = KlarboxTarget::item(url),
                          .allowedRoot = home / "Downloads",
                          .size = DiskUsage::allocatedSize(url),
                          .tier = SafetyTier::review,
                          .note = row.note,
                          .isSelectedByDefault = false,
                      }));
        }
    }
    EXPECT_EQ(scan.items.size(), offered);
    context.minimumSize = 50'000;
    EXPECT_THAT(titles(InstallersScanner().scan(context, {})), ElementsAre("folder.pkg"));
}

TEST(InstallersScanner, keepsSilentAboutDownloadsItCannotRead) {
    const TemporaryTree home{{"Downloads", bytes(10)}};
    const auto scan = InstallersScanner().scan(scanContext(home.root()), {});
    EXPECT_EQ(scan, (CategoryScan{.info = scan.info}));
}

TEST(MailDownloadsScanner, offersTheFolderAsOneItem) {
    const std::string folder = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    const TemporaryTree home{{folder + "/.DS_Store", bytes(5000)}};
    auto context = scanContext(home.root());
    const auto none = MailDownloadsScanner().scan(context, {});
    EXPECT_EQ(none, (CategoryScan{.info = none.info})) << "the Finder's file is no attachment";

    home.add({folder + "/A1/photo.jpg", bytes(50'000)});
    const auto root = home / folder;
    const KlarboxItem expected{
        .id = "mail-downloads",
        .title = "Opened Mail attachments",
        .detail = "~/" + folder,
        .target = KlarboxTarget::contents(root),
        .allowedRoot = root,
        .size = DiskUsage::allocatedSize(root),
        .tier = SafetyTier::leftover,
        .note = "Attachments stay in your mailbox and download again when opened.",
        .isSelectedByDefault = false,
    };
    EXPECT_THAT(MailDownloadsScanner().scan(context, stopped()).items, ElementsAre(expected));
    context.minimumSize = expected.size;
    EXPECT_THAT(MailDownloadsScanner().scan(context, {}).items, ElementsAre(expected));
    context.minimumSize += 1;
    EXPECT_THAT(MailDownloadsScanner().scan(context, {}).items, IsEmpty());
}

TEST(MailDownloadsScanner, saysWhyItCannotRead) {
    const std::string folder = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    {
        const TemporaryTree home{{folder, bytes(10)}};
        const auto scan = MailDownloadsScanner().scan(scanContext(home.root()), {});
        ASSERT_EQ(scan.issues.size(), 1U);
        EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
    }
}

} // namespace
} // namespace klarbox::test
