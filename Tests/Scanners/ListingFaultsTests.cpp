#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/AISessionsScanner.hpp"
#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/LogsScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"
#include "KlarboxKit/Scanners/ProjectArtifactsScanner.hpp"
#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/SystemLogsScanner.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"

#include <cerrno>
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

/// What the file system does wrong for this thread while a test runs. These faults strike root too,
/// whom file modes do not stop.
thread_local int openError = 0;         // every folder fails to open
thread_local int readError = 0;         // every listing breaks off before its end
thread_local bool listsNoTypes = false; // entries come without a type
thread_local std::string hiddenPath;    // what ends in this may not be looked at

} // namespace

extern "C" DIR *fdopendir(int fd) {
    static const auto real =
        reinterpret_cast<decltype(&::fdopendir)>(::dlsym(RTLD_NEXT, "fdopendir"));
    errno = openError;
    return openError != 0 ? nullptr : real(fd);
}

extern "C" dirent *readdir(DIR *stream) {
    static const auto real = reinterpret_cast<decltype(&::readdir)>(::dlsym(RTLD_NEXT, "readdir"));
    auto *entry = real(stream);
    if (entry == nullptr && readError != 0) {
        errno = readError;
    }
    if (entry != nullptr && listsNoTypes) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

extern "C" int fstatat(int at, const char *name, struct stat *status, int flags) noexcept {
    static const auto real = reinterpret_cast<decltype(&::fstatat)>(::dlsym(RTLD_NEXT, "fstatat"));
    if (!hiddenPath.empty() && std::string_view(name).ends_with(hiddenPath)) {
        errno = EACCES;
        return -1;
    }
    return real(at, name, status, flags);
}

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ListingFaults, areIssuesOnlyWhereThePersonCanHelp) {
    const std::string mail = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads";
    const TemporaryTree home{{mail + "/a", bytes(9000)},
                             {".codex/sessions/a", bytes(9000), daysAgo(100)}};
    addFiles(home, "", "Library/Caches/a Library/Logs/a .Trash/a Downloads/a.dmg");
    const std::pair<std::shared_ptr<const CategoryScanner>, std::string> rows[] = {
        {std::make_shared<UserCachesScanner>(), "~/Library/Caches"},
        {std::make_shared<LogsScanner>(), "~/Library/Logs"},
        {std::make_shared<TrashScanner>(home / "none"), "~/.Trash"},
        {std::make_shared<MailDownloadsScanner>(), "~/" + mail},
        {std::make_shared<InstallersScanner>(), ""}, // keeps silent
        {std::make_shared<AISessionsScanner>(), ""},
        {std::make_shared<SystemCachesScanner>(home / "Library/Caches"), ""},
    };
    const auto context = scanContext(home.root());
    for (const auto &[scanner, path] : rows) {
        SCOPED_TRACE(scanner->info().id);
        EXPECT_EQ(scanner->scan(context, {}).items.size(), 1U);
        openError = EACCES;
        hiddenPath = path.empty() ? "" : path.substr(1); // nor does it pass for missing
        auto scan = scanner->scan(context, {});
        openError = 0;
        hiddenPath.clear();
        EXPECT_THAT(scan.items, IsEmpty());
        EXPECT_EQ(scan.issues, path.empty() ? std::vector<ScanIssue>{}
                                            : std::vector{ScanIssue::needsFullDiskAccess(path)});
        // Half a listing could look like a complete one; it counts as none.
        readError = EIO;
        scan = scanner->scan(context, {});
        readError = 0;
        EXPECT_THAT(scan.items, IsEmpty());
        ASSERT_EQ(scan.issues.size(), path.empty() ? 0U : 1U);
        EXPECT_TRUE(path.empty() ||
                    std::holds_alternative<ScanIssue::Failed>(scan.issues[0].value()));
    }
}

TEST(ListingFaults, neverMakeAnythingPassForWhatItIsNot) {
    const TemporaryTree home{
        {"code/P/.venv/pyvenv.cfg", bytes(9000)}, {"code/P/.git/index", bytes(1), daysAgo(99)},
        {"code/P/a", bytes(1), daysAgo(99)},      {"cache/app.gz/a", bytes(9000)},
        {"Library/Caches", link("../cache")},     {"Library/Logs", link("../cache")}};
    auto context = scanContext(home.root());
    context.settings.projectRoots = {"~/code"};
    const auto cache = home / "cache";
    const auto projects = std::make_shared<ProjectArtifactsScanner>();
    const struct {
        std::shared_ptr<const CategoryScanner> scanner;
        std::string hidden;
        std::vector<bool> selected; ///< of what is offered
    } rows[] = {
        {projects, "none", {true}},
        {projects, "/P/.git/index", {false}},
        {projects, "/P/.git/logs/HEAD", {false}}, // which is not there, but who knows
        {projects, "/P/a", {false}},
        // Whether they are folders, which stay when they are emptied, or files, which go.
        {std::make_shared<UserCachesScanner>(), "none", {true}},
        {std::make_shared<UserCachesScanner>(), "/app.gz", {}},
        {std::make_shared<LogsScanner>(), "/app.gz", {}},
        {std::make_shared<SystemCachesScanner>(cache), "/app.gz", {}},
        {std::make_shared<SystemLogsScanner>(home / "none", cache), "/app.gz", {}},
    };
    for (const auto &[scanner, hidden, selected] : rows) {
        hiddenPath = hidden;
        const auto scan = scanner->scan(context, {});
        hiddenPath.clear();
        EXPECT_EQ(each(scan, &KlarboxItem::isSelectedByDefault), selected)
            << scanner->info().id << " without " << hidden;
    }
}

TEST(ListingFaults, hideNoFoldersWhenEntriesComeWithoutTypes) {
    const TemporaryTree tree{
        {"a/x", bytes(1)}, {"file", bytes(1)},        {"linked", link("a")},
        {"b/x", bytes(1)}, {".DS_Store/x", bytes(1)}, {"gone", link("nowhere")},
    };
    for (const bool withoutTypes : {false, true}) {
        listsNoTypes = withoutTypes;
        const auto folders = FS::realDirectories(tree.root());
        const auto entries = FileManager::entriesOfDirectory(tree.root());
        listsNoTypes = false;
        EXPECT_THAT(folders, ElementsAre(tree / "a", tree / "b"));
        EXPECT_EQ(entries.at(0).type.has_value(), !withoutTypes) << "the fault did not strike";
    }
}

} // namespace
} // namespace klarbox::test
