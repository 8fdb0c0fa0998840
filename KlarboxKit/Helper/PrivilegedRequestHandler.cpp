#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"

#include <algorithm>
#include <cstddef>
#include <span>
#include <string_view>

namespace klarbox {

namespace {

/// Longer paths reach no file: this is what the system takes, with room for the NUL behind it.
constexpr std::size_t longestPath = 1023;

/// The root with the most components that is, or holds, the path; the earlier one on a tie.
const SafetyGuard::Root *mostSpecific(const std::vector<SafetyGuard::Root> &roots,
                                      const FileURL &path) {
    const auto components = Text::foldedPathComponents(path.path());
    const SafetyGuard::Root *chosen = nullptr;
    for (const auto &root : roots) {
        const auto depth = root.components.size();
        const bool holds = depth <= components.size() &&
                           std::ranges::equal(root.components, std::span(components).first(depth));
        if (holds && (chosen == nullptr || depth > chosen->components.size())) {
            chosen = &root;
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

/// The wish of whoever asked that it be done no more. Once yes it stays.
class PrivilegedRequestHandler::Cancellation {
public:
    explicit Cancellation(const ItemRemover::CancellationTest &isCancelled) {
        if (isCancelled) {
            test_ = [this, &isCancelled] { return isRequested_ = isRequested_ || isCancelled(); };
        }
    }
    Cancellation(const Cancellation &) = delete;
    Cancellation &operator=(const Cancellation &) = delete;

    const ItemRemover::CancellationTest &test() const { return test_; }
    bool ask() const { return test_ && test_(); }
    /// Whether anybody was told yes.
    bool isRequested() const { return isRequested_; }

    static constexpr auto message = "The removal was stopped before it was done.";

private:
    ItemRemover::CancellationTest test_;
    bool isRequested_ = false;
};

PrivilegedRemovalResult
PrivilegedRequestHandler::handle(const PrivilegedRequest &request,
                                 const ItemRemover::CancellationTest &isCancelled) const {
    Cancellation cancellation(isCancelled);
    return withFailuresAsResults([&] {
        return std::visit(overloaded{
                              [&](const PrivilegedRequest::RemoveItem &item) {
                                  return removeItem(item.path, cancellation);
                              },
                              [&](const PrivilegedRequest::RemoveContents &contents) {
                                  return removeContents(contents.path, cancellation);
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
    auto folder = PinnedFolder::resolving(url.parent());
    if (!folder) {
        throw SafetyRefusal(SafetyViolation::notFound);
    }
    const auto real = SafetyGuard::resolved(roots_, folder->location.path());
    const auto candidate = folder->location.appending(url.lastComponent());
    if (const auto *root = mostSpecific(real, candidate)) {
        return {url, std::move(folder), *root};
    }
    // Written as if inside a root but leading elsewhere: the guard knows the right name for it.
    std::vector<SafetyGuard::Root> written;
    for (const auto &root : roots_) {
        const auto standardized = root.standardized().path();
        written.push_back({root, standardized, Text::foldedPathComponents(standardized)});
    }
    if (const auto *root = mostSpecific(written, url)) {
        safety_->validate(url, root->url);
    }
    throw SafetyRefusal(SafetyViolation::notInsideRoot);
}

PinnedEntry PrivilegedRequestHandler::pin(const Resolved &resolved) const {
    return safety_->siblings(resolved.url.parent(), resolved.folder, resolved.root)
        .pin(std::string(resolved.url.lastComponent()));
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeItem(const std::string &path,
                                                             Cancellation &cancellation) const {
    const auto resolved = resolve(path);
    return remove(pin(resolved), cancellation);
}

PrivilegedRemovalResult PrivilegedRequestHandler::removeContents(const std::string &path,
                                                                 Cancellation &cancellation) const {
    const auto resolved = resolve(path);
    const auto entry = pin(resolved);
    if (entry.isKnownNoFolder()) {
        return PrivilegedRemovalResult::failed("Not a folder");
    }
    const auto folder = PinnedFolder::open(entry);
    const auto names = folder->names();
    const auto siblings = safety_->siblings(folder->location, folder, resolved.root);
    PrivilegedRemovalResult total;
    auto left = static_cast<std::int64_t>(names.size());
    for (const auto name : names) {
        if (cancellation.ask()) {
            add(total, {.failedCount = left, .error = Cancellation::message});
            break;
        }
        --left;
        add(total, withFailuresAsResults(
                       [&] { return remove(siblings.pin(std::string(name)), cancellation); }));
    }
    return total;
}

PrivilegedRemovalResult PrivilegedRequestHandler::remove(const PinnedEntry &entry,
                                                         Cancellation &cancellation) const {
    try {
        const auto bytes = DiskUsage::allocatedSize(entry, cancellation.test());
        if (!cancellation.isRequested()) {
            remover_->deletePermanently(entry, cancellation.test());
            return {.removedCount = 1, .bytes = bytes};
        }
    } catch (const PlatformError &) {
        if (!cancellation.isRequested()) {
            throw;
        }
    }
    return PrivilegedRemovalResult::failed(Cancellation::message);
}

} // namespace klarbox
