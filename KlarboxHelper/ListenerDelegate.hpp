#pragma once

#include "KlarboxKit/Helper/HelperService.hpp"
#include "KlarboxKit/Platform/XPCListener.hpp"

#include <atomic>
#include <cstdint>
#include <memory>

namespace klarbox {

/// Gives every new connection the application's requirement and the helper's one service.
class ListenerDelegate final : public XPCListenerDelegate {
public:
    /// Builds the service over the five privileged folders of this machine.
    ListenerDelegate();

    /// Always true: who is not the application is turned away by the requirement.
    bool shouldAcceptNewConnection(XPCIncomingConnection &connection) override;

    /// Logs the refusal, but not every one of many: who is turned away can come again at once.
    void connectionRefused(uid_t user, std::string_view reason) override;

private:
    std::shared_ptr<const HelperService> service_;
    std::atomic<std::int64_t> nextRefusalLog_{0};
    std::atomic<std::uint64_t> unloggedRefusals_{0};
};

} // namespace klarbox
