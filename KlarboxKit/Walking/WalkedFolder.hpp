#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"
#include "KlarboxKit/Walking/EntryList.hpp"
#include "KlarboxKit/Walking/FirstFailure.hpp"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

namespace klarbox {

class Walker;

/// What was given away of one folder. Guarded by the pool's lock.
struct HandedOver {
    std::size_t pending = 0;   ///< walkers that are not done
    FirstFailure failure;      ///< of those that are
    std::list<Walker> waiting; ///< the folder's own walker, once it has nothing else left; or none
};

/// A folder on a walk's way, and the entries of it that are still to be visited.
struct WalkedFolder {
    UniqueFD descriptor; ///< none while it is closed, and where the entries are what was given
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::size_t depth = 0;      ///< folders between it and the given entry it was reached from
    std::uint64_t position = 0; ///< the tag of its own entry in the folder that holds it
    EntryList entries;          ///< tags and marks are the visitor's
    bool isListed = false;      ///< nothing is to be read of it any more
    FirstFailure failure;
    std::shared_ptr<HandedOver> handedOver; ///< none while nothing is waited for
};

} // namespace klarbox
