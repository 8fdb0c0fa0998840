#pragma once

#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"
#include "KlarboxKit/Helper/PrivilegedRequest.hpp"

#include <stop_token>

namespace klarbox {

/// Whatever performs privileged requests: the handler in this process, the client of the helper, or
/// a wrapper of either. Safe from any thread, several requests at once included.
class PrivilegedRemoving {
public:
    virtual ~PrivilegedRemoving() = default;

    /// Blocks until the request is answered. A result that reports failed or refused items is a
    /// result; throws a `std::exception` only when no answer could be had.
    virtual PrivilegedRemovalResult perform(const PrivilegedRequest &request) const = 0;

    /// The same for a caller that may stop waiting: once a stop is requested nobody takes the
    /// answer any more, and whoever can ends the work and throws. By default it goes on.
    virtual PrivilegedRemovalResult perform(const PrivilegedRequest &request,
                                            std::stop_token /*stop*/) const {
        return perform(request);
    }
};

} // namespace klarbox
