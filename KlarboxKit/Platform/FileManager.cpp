#include "KlarboxKit/Platform/FileManager.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/DirectoryReader.hpp"
#include "KlarboxKit/Platform/LinkFreePath.hpp"
#include "KlarboxKit/Platform/OpenFolder.hpp"
#include "KlarboxKit/Platform/OpenForReading.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox::FileManager {

namespace {

/// Room made ahead for a file's bytes. A sparse file can claim any size, and claims alone must not
/// exhaust the memory.
constexpr std::size_t largestReserve = std::size_t{64} << 20;

/// A path with a NUL in it names nothing; the system calls would silently stop at the NUL.
bool hasNUL(std::string_view path) {
    return path.find('\0') != std::string_view::npos;
}

/// Whether an absolute path has no component that stands for another place or for none.
bool namesEveryStep(const std::string &path) {
    const auto steps = path + "/";
    return steps.starts_with('/') && steps.find("//") == std::string::npos &&
           steps.find("/./") == std::string::npos && steps.find("/../") == std::string::npos;
}

/// The status of what is at the path; false, with errno set, without one.
bool status(const FileURL &url, struct stat &st, int flags) {
    if (hasNUL(url.path())) {
        errno = ENOENT;
        return false;
    }
    return ::fstatat(AT_FDCWD, url.path().c_str(), &st, flags) == 0;
}

/// Whether a failure says that there is nothing, as at the end of links that never end. Any other
/// leaves that open.
bool isAbsence(int code) {
    return code == ENOENT || code == ENOTDIR || code == ELOOP;
}

FileType typeOf(const struct stat &st) {
    switch (st.st_mode & S_IFMT) {
    case S_IFREG:
        return FileType::regular;
    case S_IFDIR:
        return FileType::directory;
    case S_IFLNK:
        return FileType::symbolicLink;
    default:
        return FileType::other;
    }
}

Date dateOf(const struct stat &st) {
    return dateAt(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

[[noreturn]] void throwReadError(const FileURL &url, int code, std::string_view kind) {
    const auto name = Text::visible(url.lastComponent());
    switch (code) {
    case EACCES:
    case EPERM:
        throw PlatformError::cocoa(
            PlatformError::fileReadNoPermission,
            fmt::format(
                "The {} “{}” couldn’t be opened because you don’t have permission to view it.",
                kind, name),
            code);
    case ENOENT:
        throw PlatformError::cocoa(
            PlatformError::fileReadNoSuchFile,
            fmt::format("The {} “{}” couldn’t be opened because it doesn’t exist.", kind, name),
            code);
    case EFBIG:
        throw PlatformError::cocoa(
            PlatformError::fileReadTooLarge,
            fmt::format("The {} “{}” couldn’t be opened because it is too large.", kind, name),
            code);
    default:
        throw PlatformError::cocoa(PlatformError::fileReadUnknown,
                                   fmt::format("The {} “{}” couldn’t be opened. {}.", kind, name,
                                               std::generic_category().message(code)),
                                   code);
    }
}

[[noreturn]] void throwWriteError(const FileURL &url, int code) {
    throw PlatformError::fileChange(
        fmt::format("“{}” couldn’t be saved.", Text::visible(url.path())), code);
}

std::optional<FileType> listedType(unsigned char type) {
    switch (type) {
    case DT_UNKNOWN:
        return std::nullopt;
    case DT_REG:
        return FileType::regular;
    case DT_DIR:
        return FileType::directory;
    case DT_LNK:
        return FileType::symbolicLink;
    default:
        return FileType::other;
    }
}

/// Visits name and listed type of every entry but "." and "..".
template <typename Visit>
void forEachEntry(const FileURL &url, Visit visit) {
    if (hasNUL(url.path())) {
        throwReadError(url, ENOENT, "folder");
    }
    auto folder = openForReading(AT_FDCWD, url.path().c_str(), O_DIRECTORY | O_NONBLOCK);
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(folder ? ::fdopendir(folder.get()) : nullptr,
                                                      ::closedir);
    if (!stream) {
        throwReadError(url, errno, "folder");
    }
    folder.release(); // the stream's to close
    for (;;) {
        errno = 0;
        // Each call has a stream of its own, so the shared state that readdir is known for is not
        // shared. NOLINTNEXTLINE(concurrency-mt-unsafe)
        const auto *entry = ::readdir(stream.get());
        if (entry == nullptr) {
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            visit(name, entry->d_type);
        }
    }
    if (errno != 0) {
        throwReadError(url, errno, "folder");
    }
}

void makeDirectories(const FileURL &url) {
    // No system call takes it, and looking at each of its parents first would take long.
    if (url.path().size() >= PATH_MAX) {
        throwWriteError(url, ENAMETOOLONG);
    }
    std::vector<FileURL> missing;
    for (auto folder = url; !isDirectory(folder); folder = folder.parent()) {
        missing.push_back(folder);
    }
    for (; !missing.empty(); missing.pop_back()) {
        if (::mkdir(missing.back().path().c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            throwWriteError(missing.back(), errno);
        }
    }
}

/// Begins the names of files that are not yet in their places; six letters or digits end them.
constexpr std::string_view temporaryPrefix = ".klarbox.";
constexpr std::string_view temporaryPattern = "XXXXXX";

/// Makes a file in the folder that is this process's as long as it is open.
UniqueFD makeTemporary(const FileURL &folder, std::string &path) {
    for (;;) {
        // Not made of the file's own name, which may be as long as names can be.
        path = folder.appending(fmt::format("{}{}", temporaryPrefix, temporaryPattern)).path();
        UniqueFD file(::mkostemp(path.data(), O_CLOEXEC));
        // Where the file system knows no locks nobody takes it for left over either.
        while (file && ::flock(file.get(), LOCK_EX) != 0 && errno == EINTR) {
        }
        struct stat st {};
        // Somebody may have taken it for left over before it was locked.
        if (!file || ::fstat(file.get(), &st) != 0 || st.st_nlink > 0) {
            return file;
        }
    }
}

bool isTemporaryName(std::string_view name) {
    return name.starts_with(temporaryPrefix) &&
           name.size() == temporaryPrefix.size() + temporaryPattern.size();
}

/// Removes files of this user's that processes left in the folder which were killed before they put
/// them in their places: nobody holds their locks. What cannot be removed harms nobody.
void removeLeftovers(const FileURL &folder) {
    std::vector<std::string> names;
    try {
        names = contentsOfDirectory(folder);
    } catch (const PlatformError &) {
        return; // a folder that may be written to need not be one that may be listed
    }
    for (const auto &name : names) {
        const auto path = folder.appending(name).path();
        const UniqueFD file(isTemporaryName(name) ? ::open(path.c_str(), O_RDONLY | O_NOFOLLOW |
                                                                             O_CLOEXEC | O_NONBLOCK)
                                                  : -1);
        struct stat st {};
        if (file && ::fstat(file.get(), &st) == 0 && S_ISREG(st.st_mode) &&
            st.st_uid == ::geteuid() && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            ::unlink(path.c_str());
        }
    }
}

/// Lets a file take the place of an old one: whoever had that has this, and nobody else. False,
/// with errno set, when that cannot be.
bool takeOver(const UniqueFD &file, const struct stat &old) {
    const bool isRoot = ::geteuid() == 0;
    auto mode = S_ISREG(old.st_mode) ? old.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO)
                                     : mode_t(S_IRUSR | S_IWUSR);
    if (::fchown(file.get(), isRoot ? old.st_uid : static_cast<uid_t>(-1), old.st_gid) != 0) {
        if (isRoot) {
            return false;
        }
        mode &= ~static_cast<mode_t>(S_IRWXG); // they would be another group's
    }
    // Where modes mean nothing it stays what it is.
    (void)::fchmod(file.get(), mode);
    return true;
}

} // namespace

bool exists(const FileURL &url) {
    struct stat st {};
    return status(url, st, 0);
}

bool isDirectory(const FileURL &url) {
    struct stat st {};
    return status(url, st, 0) && S_ISDIR(st.st_mode);
}

bool isExecutableFile(const FileURL &url) {
    struct stat st {};
    return status(url, st, 0) && S_ISREG(st.st_mode) && ::access(url.path().c_str(), X_OK) == 0;
}

std::optional<FileType> type(const FileURL &url) {
    struct stat st {};
    return status(url, st, AT_SYMLINK_NOFOLLOW) ? std::optional(typeOf(st)) : std::nullopt;
}

std::optional<Date> modificationDate(const FileURL &url) {
    struct stat st {};
    return status(url, st, AT_SYMLINK_NOFOLLOW) ? std::optional(dateOf(st)) : std::nullopt;
}

std::optional<EntryFacts> facts(const FileURL &url, FinalLink link) {
    struct stat st {};
    if (status(url, st, link == FinalLink::itself ? AT_SYMLINK_NOFOLLOW : 0)) {
        return EntryFacts{.type = typeOf(st), .modified = dateOf(st)};
    }
    if (isAbsence(errno)) {
        return std::nullopt;
    }
    throwReadError(url, errno, "file");
}

bool isMissing(const FileURL &url) {
    struct stat st {};
    return !status(url, st, 0) && isAbsence(errno);
}

bool isOnReadOnlyVolume(const FileURL &url) {
    struct statvfs volume {};
    return !hasNUL(url.path()) && ::statvfs(url.path().c_str(), &volume) == 0 &&
           (volume.f_flag & ST_RDONLY) != 0;
}

std::optional<std::string> realPath(std::string_view path) {
    if (hasNUL(path)) {
        return std::nullopt;
    }
    std::string given(path);
    // Most paths are real already, which is seen at once; resolving looks at every component.
    if (namesEveryStep(given)) {
        if (isLinkFree(given)) {
            return given;
        }
        if (errno == ENOENT) {
            return std::nullopt;
        }
    }
    const std::unique_ptr<char, void (*)(void *)> resolved(::realpath(given.c_str(), nullptr),
                                                           std::free);
    return resolved ? std::optional<std::string>(resolved.get()) : std::nullopt;
}

std::vector<std::string> contentsOfDirectory(const FileURL &url) {
    std::vector<std::string> names;
    forEachEntry(url, [&](std::string_view name, unsigned char) { names.emplace_back(name); });
    return names;
}

UniqueFD openDirectory(int at, const std::string &name, const FileURL &url) {
    auto folder = openFolder(at, name.c_str());
    if (!folder) {
        throwReadError(url, errno, "folder");
    }
    return folder;
}

NameList contentsOfDirectory(const UniqueFD &folder, const FileURL &url) {
    NameList names;
    DirectoryReader reader;
    for (bool isLast = false; !isLast && reader.fill(folder.get()); isLast = reader.isAtEnd()) {
        for (DirectoryEntry entry; reader.next(entry);) {
            names.append(entry.name);
        }
    }
    if (reader.error() != 0) {
        throwReadError(url, reader.error(), "folder");
    }
    return names;
}

std::vector<ListedEntry> entriesOfDirectory(const FileURL &url) {
    std::vector<ListedEntry> entries;
    forEachEntry(url, [&](std::string_view name, unsigned char type) {
        entries.push_back({std::string(name), listedType(type)});
    });
    return entries;
}

std::string contents(const FileURL &url, std::size_t limit) {
    if (hasNUL(url.path())) {
        throwReadError(url, ENOENT, "file");
    }
    const auto file = openForReading(AT_FDCWD, url.path().c_str(), O_NONBLOCK | O_NOCTTY);
    struct stat st {};
    if (!file || ::fstat(file.get(), &st) != 0) {
        throwReadError(url, errno, "file");
    }
    if (S_ISDIR(st.st_mode)) {
        throwReadError(url, EISDIR, "file");
    }
    if (!S_ISREG(st.st_mode)) { // reading it could take for ever
        throw PlatformError::cocoa(
            PlatformError::fileReadUnknown,
            fmt::format("The file “{}” couldn’t be opened because it is no regular file.",
                        Text::visible(url.lastComponent())),
            EINVAL);
    }
    if (static_cast<std::uint64_t>(st.st_size) > limit) {
        throwReadError(url, EFBIG, "file");
    }
    std::string bytes;
    bytes.reserve(std::min(static_cast<std::size_t>(st.st_size), largestReserve));
    std::array<char, 65536> buffer; // NOLINT: filled by read before it is looked at
    for (;;) {
        const auto count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throwReadError(url, errno, "file");
        }
        if (count == 0) {
            return bytes;
        }
        if (static_cast<std::size_t>(count) > limit - bytes.size()) {
            throwReadError(url, EFBIG, "file");
        }
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

void writeAtomically(const FileURL &url, std::string_view bytes) {
    if (hasNUL(url.path())) {
        throwWriteError(url, ENOENT);
    }
    const auto folder = url.parent();
    makeDirectories(folder);
    removeLeftovers(folder);
    std::string temporary;
    const auto file = makeTemporary(folder, temporary);
    if (!file) {
        throwWriteError(url, errno);
    }
    const auto fail = [&](int code) {
        ::unlink(temporary.c_str());
        throwWriteError(url, code);
    };
    struct stat old {};
    if (status(url, old, AT_SYMLINK_NOFOLLOW) && !takeOver(file, old)) {
        fail(errno);
    }
    while (!bytes.empty()) {
        const auto count = ::write(file.get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            fail(errno);
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    if (::fsync(file.get()) != 0 || ::rename(temporary.c_str(), url.path().c_str()) != 0) {
        fail(errno);
    }
}

FileURL behindOwnLink(const FileURL &url) {
    struct stat st {};
    if (!status(url, st, AT_SYMLINK_NOFOLLOW) || !S_ISLNK(st.st_mode)) {
        return url;
    }
    if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
        throwWriteError(url, EPERM); // whose it is would choose the file that is replaced
    }
    const auto real = realPath(url.path());
    if (!real) {
        throwWriteError(url, ENOENT);
    }
    return FileURL(*real);
}

UniqueFD lock(const FileURL &folder) {
    makeDirectories(folder);
    UniqueFD held(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!held) {
        throwWriteError(folder, errno);
    }
    // Fails for good only where the file system knows no locks: then there is none to wait for.
    while (::flock(held.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    return held;
}

FileURL homeDirectory() {
    // The environment is not changed after start. NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (const char *home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        return FileURL(home, true);
    }
    std::array<char, 16384> buffer{};
    struct passwd entry {};
    struct passwd *found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return FileURL(found->pw_dir, true);
    }
    return FileURL("/", true);
}

} // namespace klarbox::FileManager
