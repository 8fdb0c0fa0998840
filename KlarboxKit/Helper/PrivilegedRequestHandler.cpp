#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Overloaded.hpp"
#include "KlarboxKit/Platform/SaturatingAdd.hpp"
#include "KlarboxKit/Platform/Text.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

namespace klarbox {

namespace {

/// Longer paths reach no file: this is what the system takes, with room for the NUL behind it.
constexpr std::size_t longestPath = 1023;

/// A root and the spelling of its path that others are compared with.
struct RootPath {
    FileURL root;
    std::string path;
};

/// The root with the most components that is, or holds, the path; the earlier one on a tie.
std::optional<FileURL> mostSpecific(const std::vector<RootPath> &roots, std::string_view path) {
    const auto components = Text::foldedPathComponents(path);
    std::optional<FileURL> chosen;
    std::size_t depth = 0;
    for (const auto &[root, rootPath] : roots) {
        const auto rootComponents = Text::foldedPathComponents(rootPath);
        const bool holds =
            rootComponents.size() <= components.size() &&
            std::ranges::equal(rootComponents, std::span(components).first(rootComponents.size()));
        if (holds && (!chosen || rootComponents.size() > depth)) {
            chosen = root;
            depth = rootComponents.size();
        }
    }
    return chosen;
}

/// What `attempt` comes to, with whatever it throws turned into a result.
template <typename Attempt>
PrivilegedRemovalResult withFailuresAsResults(const Attempt &attempt) {
    try {
        return attempt();
    } catch (const SafetyRefusal &refusal) {
        return PrivilegedRemovalResult::refused(refusal.violation());
    } catch (const std::exception &error) {
        return PrivilegedRemovalResult::failed(error.what());
    }
}

/// Adds the outcome of one entry; the first refusal and the first message stay.
void add(PrivilegedRemovalResult &total, const PrivilegedRemovalResult &one) {
    total.removedCount = saturatingAdd(total.removedCount, one.removedCount);
    total.failedCount = saturatingAdd(total.failedCount, one.failedCount);
    total.bytes = saturatingAdd(total.bytes, one.bytes);
    if (!total.refusal) {
        total.refusal = one.refusal;
    }
    if (!total.error) {
        total.error = one.error;
    }
}

} // namespace

PrivilegedRemovalResult PrivilegedRequestHandler::handle(const PrivilegedRequest &request) const {
    return withFailuresAsResults([&] {
        return std::visit(
            overloaded{
                [&](const PrivilegedRequest::RemoveItem &item) { return removeItem(item.path); },
                [&](const PrivilegedRequest::RemoveContents &contents) {
                    return removeContents(contents.path);
                },
            },
            request.value());
    });
}

PrivilegedRequestHandler::Resolved
PrivilegedRequestHandler::resolve(const std::string &path) const {
    if (!path.starts_with('/') || path.find('\0') != std::string::npos ||
        path.size() > longestPath) {
        throw SafetyRefusal(SafetyViolation::notInsideRoot);
    }
    const auto url = FileURL(path).standardized();
    const auto parent = FileManager::realPath(url.parent().path());
    if (!parent) {
        throw SafetyRefusal(SafetyViolation::notFound);
    }
    const auto candidate = FileURL(*parent).appending(url.lastComponent());

    std::vector<RootPath> real;
    std::vector<RootPath> written;
    for (const auto &root : roots_) {
        if (auto resolved = FileManager::realPath(root.path())) {
            real.push_back({root, *std::move(resolved)});
        }
        written.push_back({root, root.standardized().path()});
    }
    if (const auto root = mostSpecific(real, candidate.path())) {
        return {url, *root};
    }
    // Written as if inside a root but leading elsewhere: the guard knows the right name for it.
    if (const auto root = mostSpecific(written, url.path())) {
        safety_->validate(url, *root);
    }
    throw SafetyRefusal(SafetyViolation::notInsideRoot);
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeItem(const std::string &path) const {
    const auto [url, root] = resolve(path);
    return removeValidated(safety_->validate(url, root));
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeContents(const std::string &path) const {
    const auto resolved = resolve(path);
    const auto folder = safety_->validate(resolved.url, resolved.root);
    if (!folder.isDirectory()) {
        return PrivilegedRemovalResult::failed("Not a folder");
    }
    PrivilegedRemovalResult total;
    for (const auto &name : FileManager::contentsOfDirectory(folder)) {
        add(total, withFailuresAsResults(
                       [&] { return removeChild(folder.appending(name), folder, resolved.root); }));
    }
    return total;
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeChild(const FileURL &child,
                                                              const FileURL &folder,
                                                              const FileURL &root) const {
    const auto validated = safety_->validate(child, root);
    // The folder may have been replaced by a link to another place in the same root since it was
    // validated; nobody asked for that place to be emptied.
    if (Text::foldedPathComponents(validated.parent().path()) !=
        Text::foldedPathComponents(folder.path())) {
        return PrivilegedRemovalResult::refused(SafetyViolation::symlinkEscape);
    }
    return removeValidated(validated);
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeValidated(const FileURL &url) const {
    const auto bytes = DiskUsage::allocatedSize(url);
    remover_->deletePermanently(url);
    return {.removedCount = 1, .bytes = bytes};
}

} // namespace klarbox
