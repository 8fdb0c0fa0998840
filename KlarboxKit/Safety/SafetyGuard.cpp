#include "KlarboxKit/Safety/SafetyGuard.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Text.hpp"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

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

std::vector<std::string> components(const FileURL &url) {
    return Text::foldedPathComponents(url.path());
}

[[noreturn]] void refuse(SafetyViolation violation) {
    throw SafetyRefusal(violation);
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

bool isTopOfMountedVolume(std::string_view foldedPath) {
    const auto pieces = Text::foldedPathComponents(foldedPath);
    return pieces.size() == 2 && pieces.front() == "volumes";
}

/// The name of what a standardised location names; only an entry of a folder has one.
std::string nameOf(const FileURL &written) {
    const auto name = written.lastComponent();
    if (name.empty() || name == "/" || name == "." || name == "..") {
        refuse(SafetyViolation::isRoot);
    }
    return std::string(name);
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
        const auto folded = Text::foldedPath(path);
        protectedPaths_.insert(folded);
        // A listed folder may be a link: then what it leads to is protected as well, by whichever
        // spelling this file system knows the link.
        auto &places = path == trash ? linkedTrash_ : protectedPaths_;
        places.insert(Text::foldedPath(canonicalPath(folded)));
        places.insert(Text::foldedPath(canonicalPath(path)));
    }
    std::ranges::transform(enclosures, std::back_inserter(enclosures_), place);
}

SafetyGuard::Place SafetyGuard::place(const FileURL &folder) {
    return {.written = components(folder.standardized()),
            .real = Text::foldedPathComponents(canonicalPath(folder.path()))};
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
    const auto name = nameOf(written);
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
    judge(written, location, *resolvedRoot);
    return FileURL(location.path(), *type == FileManager::FileType::directory);
}

PinnedEntry SafetyGuard::pin(const FileURL &url, const FileURL &root) const {
    const auto resolvedRoot = resolved(root);
    if (!resolvedRoot) {
        refuse(SafetyViolation::notFound);
    }
    const auto written = url.standardized();
    nameOf(written);
    return pin(written, PinnedFolder::resolving(written.parent()), *resolvedRoot);
}

PinnedEntry SafetyGuard::pin(const FileURL &url, const std::shared_ptr<const PinnedFolder> &folder,
                             const Root &root) const {
    PinnedEntry entry{.folder = folder, .name = nameOf(url)};
    if (folder && entry.name.find('\0') == std::string::npos) {
        entry.status = FileStatus::of(entry.parent(), entry.name.c_str());
    }
    if (!entry.status) {
        refuse(SafetyViolation::notFound);
    }
    judge(url, entry.location(), root);
    return entry;
}

/// What is left to say of a location that exists: `written` as it was asked for, `location` with
/// the links in its parent folders resolved.
void SafetyGuard::judge(const FileURL &written, const FileURL &location, const Root &root) const {
    const auto candidate = components(location);
    if (candidate == root.components) {
        refuse(SafetyViolation::isRoot);
    }
    if (!klarbox::isInside(candidate, root.components)) {
        const auto asked = components(written);
        const bool claimsInside = klarbox::isInside(asked, components(root.url.standardized())) ||
                                  klarbox::isInside(asked, root.components);
        refuse(claimsInside ? SafetyViolation::symlinkEscape : SafetyViolation::notInsideRoot);
    }
    if (!enclosures_.empty() && leadsOut(components(written), candidate)) {
        refuse(SafetyViolation::symlinkEscape);
    }
    if (std::ranges::find(candidate, ".git") != candidate.end()) {
        refuse(SafetyViolation::insideGitDirectory);
    }
    if (isListed(Text::foldedPath(location.path()))) {
        refuse(SafetyViolation::protectedLocation);
    }
}

bool SafetyGuard::leadsOut(Components written, const Components &candidate) const {
    if (klarbox::isInside(written, home_.written)) {
        written.erase(written.begin(),
                      written.begin() + static_cast<std::ptrdiff_t>(home_.written.size()));
        written.insert(written.begin(), home_.real.begin(), home_.real.end());
    }
    return std::ranges::any_of(enclosures_, [&](const Place &each) {
        const bool holdsIt =
            klarbox::isInside(written, each.written) || klarbox::isInside(written, each.real);
        return holdsIt && !klarbox::isInside(candidate, each.real);
    });
}

bool SafetyGuard::isProtected(const FileURL &url) const {
    const auto path = Text::foldedPath(canonicalPath(url.standardized().path()));
    return isListed(path) || isTopOfMountedVolume(path);
}

bool SafetyGuard::mayBeEmptied(const FileURL &target) const {
    const auto path = Text::foldedPath(canonicalPath(target.standardized().path()));
    return !protectedPaths_.contains(path) && !isTopOfMountedVolume(path);
}

bool SafetyGuard::isListed(const std::string &foldedPath) const {
    return protectedPaths_.contains(foldedPath) || linkedTrash_.contains(foldedPath);
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
