#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Safety/ItemRemover.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"
#include "KlarboxKit/Walking/Walk.hpp"

#include <cstddef>
#include <cstdint>

namespace klarbox {

/// Removes one entry and everything below it, subtrees side by side when there are enough of them.
/// What is gone in the end, what stays and which failure is told is what one thread, taking every
/// entry in the order of the listings, would have come to.
///
/// An entry is what it is at the moment it is removed: a link is removed and not followed, a folder
/// is entered only when it is the very folder that was looked at, on the same file system and no
/// mount point.
class TreeRemoval final : public Walk {
public:
    /// May wait until other walks of this process have closed some descriptors. The entry and the
    /// test must outlive the removal.
    TreeRemoval(const PinnedEntry &entry, const ItemRemover::CancellationTest &isCancelled);

    /// Answers the errno value of the failure that comes first in the order of the listings, 0 for
    /// none. A failing entry and the folders above it stay; everything else is gone. Once the test
    /// answered yes all that is left stays, and if that is anything the answer is ECANCELED.
    int run();

private:
    class Visitor;

    void advance(Walker &walker) override;
    void ask() override;

    const PinnedEntry &entry_;
    std::uint64_t device_ = 0; ///< of the file system that holds the entry's folder
    std::size_t untilAsked_;   ///< entries; for the owner
};

} // namespace klarbox
