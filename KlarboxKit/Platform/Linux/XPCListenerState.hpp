#pragma once

#include "KlarboxKit/Platform/Linux/PeerVerifier.hpp"
#include "KlarboxKit/Platform/XPCListener.hpp"

#include <condition_variable>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>

namespace klarbox {

class XPCServedConnection;

/// What a listener and the threads of its connections share; they keep it alive.
struct XPCListenerState {
    XPCListenerState(UniqueFD listening, XPCListener::Options given);

    const XPCListener::Options options;
    const std::size_t verificationsPerUser; ///< at the same time
    const UniqueFD socket;
    const UniqueFD executable; ///< of this process, for clients to verify
    const PeerVerifier verifier;
    XPCListenerDelegate *delegate = nullptr;

    mutable std::mutex mutex;        ///< guards what follows
    std::condition_variable changed; ///< a connection or a verification ended
    std::list<std::shared_ptr<XPCServedConnection>> connections; ///< in the order they came

    /// Tells the delegate. When even that fails (there is no memory), nobody is told.
    void refused(uid_t user, const char *reason) const noexcept;
};

} // namespace klarbox
