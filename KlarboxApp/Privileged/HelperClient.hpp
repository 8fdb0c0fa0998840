#pragma once

#include "KlarboxKit/Helper/PrivilegedRemoving.hpp"
#include "KlarboxKit/Platform/XPCConnection.hpp"

#include <memory>
#include <mutex>
#include <vector>

namespace klarbox {

/// Has privileged requests done by the helper of this machine. Connects when first asked and keeps
/// the connection for the next request; requests made side by side get a connection each.
class HelperClient final : public PrivilegedRemoving {
public:
    /// The installed helper, verified with `helperRequirement`.
    static XPCConnection::Service installedHelper();

    /// `waiting` hears about the wait for each answer, on the thread of the request.
    explicit HelperClient(XPCConnection::Service service = installedHelper(),
                          XPCConnection::Waiting waiting = {})
        : service_(std::move(service)),
          waiting_(std::move(waiting)) {}

    /// Throws `PlatformError` with a sentence for people when the helper cannot be reached, is not
    /// the signed one, does not accept this program, or gives no answer that can be read. No path
    /// leaves this process before the helper is verified. A request that may have reached the
    /// helper is not repeated.
    PrivilegedRemovalResult perform(const PrivilegedRequest &request) const override {
        return perform(request, {});
    }
    /// A requested stop closes the connection: the helper ends what it does for this request.
    PrivilegedRemovalResult perform(const PrivilegedRequest &request,
                                    std::stop_token stop) const override;

private:
    std::unique_ptr<XPCConnection> takeIdle() const;

    XPCConnection::Service service_;
    XPCConnection::Waiting waiting_;
    mutable std::mutex mutex_;
    mutable std::vector<std::unique_ptr<XPCConnection>> idle_;
};

} // namespace klarbox
