#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Safety/PinnedFolder.hpp"
#include "KlarboxKit/Safety/SafetyViolation.hpp"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace klarbox {

/// Decides whether a path may be removed on behalf of a root folder. Every removal passes it first.
///
/// Immutable after creation and safe from any thread. It changes nothing on disk and judges the
/// file system as it is at the moment of each call; what happens between a call and the removal is
/// the business of `SecureDeleter` and its like.
class SafetyGuard {
public:
    /// Protects the system's folders and the personal folders of this home (about 74 paths, each
    /// resolved once, here).
    ///
    /// `enclosures` are folders that no link may lead out of, not even one in the place of a root:
    /// what is written as lying in one is accepted only when it really lies in it, and in every
    /// other that it is written as lying in. A home that is spelled through links lies where these
    /// lead. For trees that somebody else made.
    explicit SafetyGuard(const FileURL &homeDirectory, std::span<const FileURL> enclosures = {});

    /// Returns the resolved location to act on in place of `url`: links in its parent folders are
    /// resolved, its last component is not, and it is marked as a directory exactly when it is one
    /// itself. Throws `SafetyRefusal`, and nothing else, for the first rule that `url` breaks.
    FileURL validate(const FileURL &url, const FileURL &root) const;

    /// A root with its links resolved, for judging several locations on behalf of it.
    struct Root {
        FileURL url;                         ///< as it was given
        std::string path;                    ///< with links resolved
        std::vector<std::string> components; ///< of that path, lower-cased
    };

    /// The root as it lies now; nothing when it does not exist.
    static std::optional<Root> resolved(const FileURL &root);

    /// The roots that exist, as they lie now, in their order. What `realPath` (just resolved)
    /// proves to be free of links is not looked at again, nor what one root proves of another.
    static std::vector<Root> resolved(std::span<const FileURL> roots, std::string_view realPath);

    /// Judges like `validate` and holds what it judged, so that nothing need follow a path again:
    /// the folder that really holds the location is opened first, the entry is looked at in it, and
    /// the answer has the entry's status. Throws `SafetyRefusal`, or a `PlatformError` when there
    /// is no descriptor left.
    PinnedEntry pin(const FileURL &url, const FileURL &root) const;

    /// Judges the entries of one folder, each as `pin` would: what they have in common is judged
    /// once, however many there are. Refers to the guard. Immutable; safe from any thread.
    class Siblings {
    public:
        /// Throws `SafetyRefusal`, and nothing else.
        PinnedEntry pin(const std::string &name) const;

    private:
        friend SafetyGuard;
        /// Entries of a folder as it was asked for, and as it really lies.
        Siblings(const SafetyGuard &guard, const FileURL &written, const FileURL &location,
                 const Root &root);
        void judge(std::string_view name) const;

        std::shared_ptr<const PinnedFolder> folder_;
        std::optional<SafetyViolation> common_; ///< of every entry but the root
        std::optional<std::string> nameOfRoot_; ///< lower-cased; if it is one
        bool isInGitDirectory_;
        std::vector<std::string> protectedNames_;
    };

    /// Of a folder that is held already, null when there is none. `written` is the standardised
    /// location of the folder as it was asked for, which counts for which refusal is the right one.
    Siblings siblings(const FileURL &written, std::shared_ptr<const PinnedFolder> folder,
                      const Root &root) const;

    /// Whether the location is protected, or is the top folder of a mounted volume.
    bool isProtected(const FileURL &url) const;

    /// Whether a folder that a link leads to may be emptied as if it stood in the link's place:
    /// when it is not protected, or only for being where the Trash of the home leads.
    bool mayBeEmptied(const FileURL &target) const;

    /// The path with links resolved when it exists, else lexically standardised.
    static std::string canonicalPath(std::string_view path);

    /// Whether `candidate` lies strictly below `parent`, by whole components, letter case apart.
    static bool isInside(std::string_view candidate, std::string_view parent);

private:
    using Components =
        std::vector<std::string>; ///< of a path, folded so that every spelling is one

    /// A folder by the path it was given as, and by the one with links resolved.
    struct Place {
        Components written;
        Components real;
    };

    static Place place(const FileURL &folder);
    bool isListed(const std::string &key) const;
    bool leadOut(Components written, const Components &folder) const;

    /// Folded so that every spelling of a path is one.
    using Paths = std::unordered_set<std::string>;

    Paths protectedPaths_;
    Paths linkedTrash_; ///< where the Trash of the home leads when it is a link: not to be removed
    Place home_;
    std::vector<Place> enclosures_;
};

} // namespace klarbox
