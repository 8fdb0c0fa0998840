#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/AISessionsScanner.hpp"
#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/LogsScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"
#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <cerrno>
#include <dirent.h>
#include <dlfcn.h>

#include <gtest/gtest.h>

namespace {

/// What the file system does wrong for this thread while a test runs. These faults strike root too,
/// whom file modes do not stop.
thread_local int openError = 0;         // every folder fails to open
thread_local int readError = 0;         // every listing breaks off after its first entry
thread_local bool listsNoTypes = false; // entries come without a type
thread_local int entriesRead = 0;

template <typename Function>
Function next(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" DIR *opendir(const char *path) {
    static const auto real = next<DIR *(*)(const char *)>("opendir");
    entriesRead = 0;
    if (openError != 0) {
        errno = openError;
        return nullptr;
    }
    return real(path);
}

extern "C" dirent *readdir(DIR *stream) {
    static const auto real = next<dirent *(*)(DIR *)>("readdir");
    if (readError != 0 && ++entriesRead > 1) {
        errno = readError;
        return nullptr;
    }
    auto *entry = real(stream);
    if (entry != nullptr && listsNoTypes) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ListingFaults : public testing::Test {
protected:
    void TearDown() override {
        openError = 0;
        readError = 0;
        listsNoTypes = false;
    }
};

TEST_F(ListingFaults, areIssuesOnlyWhereThePersonCanHelp) {
    const std::string mail = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    const TemporaryTree home{
        {"Library/Caches/a", bytes(9000)}, {"Library/Logs/a", bytes(9000)},
        {".Trash/a", bytes(9000)},         {"Downloads/a.dmg", bytes(9000)},
        {mail + "/a", bytes(9000)},        {".codex/sessions/a", bytes(9000), daysAgo(100)},
    };
    struct Row {
        std::shared_ptr<const CategoryScanner> scanner;
        std::string path; ///< empty: keeps silent
    };
    const Row rows[] = {
        {std::make_shared<UserCachesScanner>(), "~/Library/Caches"},
        {std::make_shared<LogsScanner>(), "~/Library/Logs"},
        {std::make_shared<TrashScanner>(home / "none"), "~/.Trash"},
        {std::make_shared<MailDownloadsScanner>(), "~/" + mail},
        {std::make_shared<InstallersScanner>(), ""},
        {std::make_shared<AISessionsScanner>(), ""},
        {std::make_shared<SystemCachesScanner>(home / "Library/Caches"), ""},
    };
    const auto context = scanContext(home.root());
    for (const auto &[scanner, path] : rows) {
        SCOPED_TRACE(scanner->info().id);
        EXPECT_EQ(scanner->scan(context, {}).items.size(), 1U);
        openError = EACCES;
        auto scan = scanner->scan(context, {});
        openError = 0;
        EXPECT_THAT(scan.items, IsEmpty());
        if (path.empty()) {
            EXPECT_THAT(scan.issues, IsEmpty());
        } else {
            EXPECT_THAT(scan.issues, ElementsAre(ScanIssue::needsFullDiskAccess(path)));
        }
        // Half a listing could look like a complete one; it counts as none.
        readError = EIO;
        scan = scanner->scan(context, {});
        readError = 0;
        EXPECT_THAT(scan.items, IsEmpty());
        ASSERT_EQ(scan.issues.size(), path.empty() ? 0U : 1U);
        if (!path.empty()) {
            EXPECT_TRUE(std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
        }
    }
}

TEST_F(ListingFaults, foldersAreKnownWithoutTypesInTheListing) {
    const TemporaryTree tree{
        {"a/x", bytes(1)}, {"file", bytes(1)},        {"linked", link("a")},
        {"b/x", bytes(1)}, {".DS_Store/x", bytes(1)}, {"gone", link("nowhere")},
    };
    for (const bool withoutTypes : {false, true}) {
        listsNoTypes = withoutTypes;
        EXPECT_THAT(FS::realDirectories(tree.root()), ElementsAre(tree / "a", tree / "b"));
        for (const auto &entry : FileManager::entriesOfDirectory(tree.root())) {
            EXPECT_TRUE(!withoutTypes || !entry.type) << "the fault did not strike";
        }
    }
}

} // namespace
} // namespace klarbox::test
