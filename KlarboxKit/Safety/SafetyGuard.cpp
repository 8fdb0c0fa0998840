#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace klarbox {

namespace {

constexpr std::array<std::string_view, 34> systemProtectedPaths{
    "/",
    "/System",
    "/Library",
    "/Applications",
    "/Users",
    "/Users/Shared",
    "/Volumes",
    "/usr",
    "/bin",
    "/sbin",
    "/opt",
    "/opt/homebrew",
    "/etc",
    "/var",
    "/tmp",
    "/cores",
    "/private",
    "/private/var",
    "/private/etc",
    "/private/tmp",
    "/private/var/folders",
    "/Library/Caches",
    "/Library/Logs",
    "/Library/Application Support",
    "/Library/Preferences",
    "/Library/LaunchAgents",
    "/Library/LaunchDaemons",
    "/Library/PrivilegedHelperTools",
    "/Library/Developer",
    "/Library/Developer/CoreSimulator",
    "/private/var/log",
    "/Library/Logs/DiagnosticReports",
    "/Library/Developer/CoreSimulator/Caches",
    "/Library/Developer/CoreSimulator/Caches/dyld",
};

/// Relative to the home folder; the empty path is the home folder itself.
constexpr std::array<std::string_view, 40> homeProtectedPaths{
    "",
    "Desktop",
    "Documents",
    "Downloads",
    "Movies",
    "Music",
    "Pictures",
    "Public",
    "Applications",
    "Developer",
    "Projects",
    ".Trash",
    "Library",
    "Library/Application Support",
    "Library/Caches",
    "Library/Logs",
    "Library/Preferences",
    "Library/Containers",
    "Library/Group Containers",
    "Library/Mobile Documents",
    "Library/Mobile Documents/com~apple~CloudDocs",
    "Library/CloudStorage",
    "Library/LaunchAgents",
    "Library/Mail",
    "Library/Messages",
    "Library/Keychains",
    "Library/Developer",
    "Library/Developer/Xcode",
    "Library/Developer/CoreSimulator",
    "Library/Developer/CoreSimulator/Devices",
    ".ssh",
    ".gnupg",
    ".config",
    ".local",
    ".local/share",
    ".cache",
    ".npm",
    ".gradle",
    ".cargo",
    ".rustup",
};

bool isInside(std::span<const std::string> candidate, std::span<const std::string> parent) {
    return parent.size() < candidate.size() &&
           std::ranges::equal(parent, candidate.first(parent.size()));
}

bool isAtOrInside(std::span<const std::string> candidate, std::span<const std::string> parent) {
    return parent.size() <= candidate.size() &&
           std::ranges::equal(parent, candidate.first(parent.size()));
}

std::vector<std::string> components(const FileURL &url) {
    return Text::foldedPathComponents(url.path());
}

[[noreturn]] void refuse(SafetyViolation violation) {
    throw SafetyRefusal(violation);
}

/// Equal for all spellings of a path that some file system takes for one: refusing one too many is
/// better than removing a personal folder by an odd name.
std::vector<std::string> inAnySpelling(std::string_view path) {
    auto components = Text::foldedPathComponents(path);
    std::ranges::transform(components, components.begin(), Text::caseFolded);
    return components;
}

/// The same as one text.
std::string protectionKey(std::string_view path) {
    return fmt::format("/{}", fmt::join(inAnySpelling(path), "/"));
}

SafetyGuard::Root rootAt(const FileURL &root, std::string realPath) {
    auto components = Text::foldedPathComponents(realPath);
    return {.url = root, .path = std::move(realPath), .components = std::move(components)};
}

/// Whether `place` is a real path, or one on the way to it: then there is no link in it.
bool leadsThrough(std::string_view realPath, std::string_view place) {
    return realPath.starts_with(place) &&
           (realPath.size() == place.size() || realPath[place.size()] == '/');
}

bool isTopOfMountedVolume(std::string_view key) {
    const auto pieces = Text::foldedPathComponents(key);
    return pieces.size() == 2 && pieces.front() == "volumes";
}

/// Only an entry of a folder has a name.
void expectName(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) {
        refuse(SafetyViolation::isRoot);
    }
}

} // namespace

SafetyGuard::SafetyGuard(const FileURL &homeDirectory, std::span<const FileURL> enclosures)
    : home_(place(homeDirectory)) {
    const auto home = canonicalPath(homeDirectory.path());
    std::vector<std::string> listed(systemProtectedPaths.begin(), systemProtectedPaths.end());
    for (const auto entry : homeProtectedPaths) {
        listed.push_back(entry.empty() ? home : home + "/" + std::string(entry));
    }
    const auto trash = home + "/.Trash";
    for (const auto &path : listed) {
        const auto key = protectionKey(path);
        protectedPaths_.insert(key);
        // A listed folder may be a link: then what it leads to is protected as well, by whichever
        // spelling this file system knows the link.
        auto &places = path == trash ? linkedTrash_ : protectedPaths_;
        places.insert(protectionKey(canonicalPath(Text::foldedPath(path))));
        places.insert(protectionKey(canonicalPath(path)));
    }
    std::ranges::transform(enclosures, std::back_inserter(enclosures_), place);
}

SafetyGuard::Place SafetyGuard::place(const FileURL &folder) {
    return {.written = inAnySpelling(folder.standardized().path()),
            .real = inAnySpelling(canonicalPath(folder.path()))};
}

std::optional<SafetyGuard::Root> SafetyGuard::resolved(const FileURL &root) {
    auto path = FileManager::realPath(root.path());
    return path ? std::optional(rootAt(root, *std::move(path))) : std::nullopt;
}

std::vector<SafetyGuard::Root> SafetyGuard::resolved(std::span<const FileURL> roots,
                                                     std::string_view realPath) {
    std::vector<Root> found;
    // From the last one on: a root inside another stands after it, and proves that other.
    for (auto each = roots.rbegin(); each != roots.rend(); ++each) {
        const auto &root = *each;
        const auto proves = [&](std::string_view path) { return leadsThrough(path, root.path()); };
        if (proves(realPath) || std::ranges::any_of(found, proves, &Root::path)) {
            found.push_back(rootAt(root, root.path()));
        } else if (auto one = resolved(root)) {
            found.push_back(*std::move(one));
        }
    }
    std::ranges::reverse(found);
    return found;
}

FileURL SafetyGuard::validate(const FileURL &url, const FileURL &root) const {
    const auto resolvedRoot = resolved(root);
    if (!resolvedRoot) {
        refuse(SafetyViolation::notFound);
    }
    const auto written = url.standardized();
    const auto name = written.lastComponent();
    expectName(name);
    const auto parent = FileManager::realPath(written.parent().path());
    if (!parent) {
        refuse(SafetyViolation::notFound);
    }
    // The last component stays unresolved: a link is removed itself, never what it leads to.
    const auto location = FileURL(*parent).appending(name);
    const auto type = FileManager::type(location);
    if (!type) {
        refuse(SafetyViolation::notFound);
    }
    Siblings(*this, written.parent(), FileURL(*parent), *resolvedRoot).judge(name);
    return FileURL(location.path(), *type == FileManager::FileType::directory);
}

PinnedEntry SafetyGuard::pin(const FileURL &url, const FileURL &root) const {
    const auto resolvedRoot = resolved(root);
    if (!resolvedRoot) {
        refuse(SafetyViolation::notFound);
    }
    const auto written = url.standardized();
    expectName(written.lastComponent());
    const auto folder = written.parent();
    return siblings(folder, PinnedFolder::resolving(folder), *resolvedRoot)
        .pin(std::string(written.lastComponent()));
}

SafetyGuard::Siblings SafetyGuard::siblings(const FileURL &written,
                                            std::shared_ptr<const PinnedFolder> folder,
                                            const Root &root) const {
    Siblings siblings(*this, written, folder ? folder->location : written, root);
    siblings.folder_ = std::move(folder);
    return siblings;
}

PinnedEntry SafetyGuard::Siblings::pin(const std::string &name) const {
    expectName(name);
    PinnedEntry entry{.folder = folder_, .name = name};
    if (folder_ && name.find('\0') == std::string::npos) {
        entry.status = FileStatus::of(entry.parent(), name.c_str());
    }
    if (!entry.status) {
        refuse(SafetyViolation::notFound);
    }
    judge(name);
    return entry;
}

SafetyGuard::Siblings::Siblings(const SafetyGuard &guard, const FileURL &written,
                                const FileURL &location, const Root &root) {
    const auto folder = components(location);
    const auto asked = components(written);
    if (!isAtOrInside(folder, root.components)) {
        const bool claimsInside = isAtOrInside(asked, components(root.url.standardized())) ||
                                  isAtOrInside(asked, root.components);
        common_ = claimsInside ? SafetyViolation::symlinkEscape : SafetyViolation::notInsideRoot;
    } else if (!guard.enclosures_.empty() &&
               guard.leadOut(inAnySpelling(written.path()), inAnySpelling(location.path()))) {
        common_ = SafetyViolation::symlinkEscape;
    }
    if (!root.components.empty() &&
        std::ranges::equal(folder, std::span(root.components).first(root.components.size() - 1))) {
        nameOfRoot_ = root.components.back();
    }
    isInGitDirectory_ = std::ranges::find(folder, ".git", Text::caseFolded) != folder.end();
    const auto prefix = folder.empty() ? "/" : protectionKey(location.path()) + "/";
    for (const auto *listed : {&guard.protectedPaths_, &guard.linkedTrash_}) {
        for (const auto &path : *listed) {
            if (path.starts_with(prefix)) {
                protectedNames_.push_back(path.substr(prefix.size())); // or what is further down
            }
        }
    }
}

/// What is left to say of an entry that exists.
void SafetyGuard::Siblings::judge(std::string_view name) const {
    const auto folded = Text::lowercased(name);
    if (folded == nameOfRoot_) {
        refuse(SafetyViolation::isRoot);
    }
    if (common_) {
        refuse(*common_);
    }
    const auto anySpelling = Text::caseFolded(name);
    if (isInGitDirectory_ || anySpelling == ".git") {
        refuse(SafetyViolation::insideGitDirectory);
    }
    if (std::ranges::find(protectedNames_, anySpelling) != protectedNames_.end()) {
        refuse(SafetyViolation::protectedLocation);
    }
}

/// Whether entries of a folder lead out of an enclosure that they are written as lying in.
bool SafetyGuard::leadOut(Components written, const Components &folder) const {
    if (isAtOrInside(written, home_.written)) {
        written.erase(written.begin(),
                      written.begin() + static_cast<std::ptrdiff_t>(home_.written.size()));
        written.insert(written.begin(), home_.real.begin(), home_.real.end());
    }
    return std::ranges::any_of(enclosures_, [&](const Place &each) {
        const bool holdsThem =
            isAtOrInside(written, each.written) || isAtOrInside(written, each.real);
        return holdsThem && !isAtOrInside(folder, each.real);
    });
}

bool SafetyGuard::isProtected(const FileURL &url) const {
    const auto path = protectionKey(canonicalPath(url.standardized().path()));
    return isListed(path) || isTopOfMountedVolume(path);
}

bool SafetyGuard::mayBeEmptied(const FileURL &target) const {
    const auto path = protectionKey(canonicalPath(target.standardized().path()));
    return !protectedPaths_.contains(path) && !isTopOfMountedVolume(path);
}

bool SafetyGuard::isListed(const std::string &key) const {
    return protectedPaths_.contains(key) || linkedTrash_.contains(key);
}

std::string SafetyGuard::canonicalPath(std::string_view path) {
    if (auto resolved = FileManager::realPath(path)) {
        return *std::move(resolved);
    }
    return FileURL(path).standardized().path();
}

bool SafetyGuard::isInside(std::string_view candidate, std::string_view parent) {
    return klarbox::isInside(Text::foldedPathComponents(candidate),
                             Text::foldedPathComponents(parent));
}

} // namespace klarbox
