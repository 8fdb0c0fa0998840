#include "Tests/Support/TemporaryTree.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {

namespace fs = std::filesystem;

namespace {

/// A folder in memory where programs can be run.
bool isUsable(const char *memory) {
    struct statvfs status {};
    return ::access(memory, W_OK) == 0 && ::statvfs(memory, &status) == 0 &&
           (status.f_flag & ST_NOEXEC) == 0;
}

FileURL makeRoot(TemporaryTree::Medium medium) {
    const auto *memory = "/dev/shm";
    const bool isInMemory = medium == TemporaryTree::Medium::memoryIfPossible && isUsable(memory);
    const auto folder = isInMemory ? fs::path(memory) : fs::temp_directory_path();
    auto pattern = (fs::canonical(folder) / "klarbox-test.XXXXXX").string();
    check(::mkdtemp(pattern.data()) != nullptr, pattern);
    return FileURL(pattern, true);
}

void writeFile(const std::string &path, std::string_view content) {
    std::ofstream file(path, std::ios::binary);
    check(bool(file << content << std::flush), path);
}

void setModeAndDate(const FileURL &root, const Entry &entry) {
    const auto url = root.appending(entry.path);
    if (entry.modified) {
        setModified(url, *entry.modified);
    }
    check(!entry.mode || ::chmod(url.path().c_str(), *entry.mode) == 0, url.path());
}

void makeContent(const FileURL &root, const Entry &entry) {
    const auto path = root.appending(entry.path).path();
    fs::create_directories(fs::path(path).parent_path());
    std::visit(
        overloaded{
            [&](const Entry::Bytes &content) { writeFile(path, std::string(content.count, 'x')); },
            [&](const Entry::Text &content) { writeFile(path, content.text); },
            [&](const Entry::Directory &) { fs::create_directories(path); },
            [&](const Entry::SymbolicLink &link) { fs::create_symlink(link.target, path); },
            [&](const Entry::HardLink &link) {
                fs::create_hard_link(root.appending(link.target).path(), path);
            },
        },
        entry.what);
}

} // namespace

void check(bool holds, const std::string &what) {
    if (!holds) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void setModified(const FileURL &url, Date date) {
    const auto since = date.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    const timespec time{seconds.count(), std::chrono::nanoseconds(since - seconds).count()};
    const timespec times[2] = {time, time};
    check(::utimensat(AT_FDCWD, url.path().c_str(), times, AT_SYMLINK_NOFOLLOW) == 0, url.path());
}

TemporaryTree::TemporaryTree(Medium medium, std::initializer_list<Entry> entries)
    : root_(makeRoot(medium)) {
    for (const auto &entry : entries) {
        makeContent(root_, entry);
    }
    // Making an entry touches its folder, so dates and modes are set once everything stands.
    for (const auto &entry : entries) {
        setModeAndDate(root_, entry);
    }
}

TemporaryTree::~TemporaryTree() {
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(
             root_.path(), fs::directory_options::skip_permission_denied, ignored);
         !ignored && it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->symlink_status(ignored).type() == fs::file_type::directory) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
        }
    }
    std::error_code failed;
    fs::remove_all(root_.path(), failed);
    EXPECT_FALSE(failed) << root_.path() << " is left behind: " << failed.message();
}

void makeEntry(const FileURL &root, const Entry &entry) {
    makeContent(root, entry);
    setModeAndDate(root, entry);
}

std::string manifest(const FileURL &folder) {
    std::set<std::string> lines;
    for (const auto &entry : fs::recursive_directory_iterator(folder.path())) {
        struct stat st {};
        check(::lstat(entry.path().c_str(), &st) == 0, entry.path());
        std::string content;
        if (S_ISDIR(st.st_mode)) {
            content = "directory";
        } else if (S_ISLNK(st.st_mode)) {
            content = fs::read_symlink(entry.path()).string();
        } else if (S_ISREG(st.st_mode)) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string all((std::istreambuf_iterator<char>(file)), {});
            content = fmt::format("{:x}", std::hash<std::string>{}(all));
        }
        lines.insert(fmt::format("{} {:o} {} {}.{} {}\n", entry.path().string(), st.st_mode,
                                 st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec, content));
    }
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

bool isRoot() {
    return ::geteuid() == 0;
}

} // namespace klarbox::test
