#include "KlarboxApp/Privileged/HelperClient.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"
#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Helper/KlarboxHelperXPC.hpp"
#include "KlarboxKit/Platform/XPC.hpp"

#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <fmt/format.h>

namespace klarbox {

namespace {

struct Message {
    std::string_view selector;
    std::string_view path;
};

Message message(const PrivilegedRequest &request) {
    return std::visit(
        overloaded{[](const PrivilegedRequest::RemoveItem &r) {
                       return Message{KlarboxHelperXPC::removeItemSelector, r.path};
                   },
                   [](const PrivilegedRequest::RemoveContents &r) {
                       return Message{KlarboxHelperXPC::removeContentsSelector, r.path};
                   }},
        request.value());
}

/// The failure as the person who waits for the removal should read it.
XPCError explained(const XPCError &error) {
    std::string_view what;
    switch (error.kind()) {
    case XPCError::Kind::unreachable:
        what = "The Klarbox helper can’t be reached.";
        break;
    case XPCError::Kind::silent:
        what = "The Klarbox helper can’t be asked.";
        break;
    case XPCError::Kind::turnedAway:
        what = "The Klarbox helper doesn’t accept this copy of klarbox.";
        break;
    case XPCError::Kind::unverified:
        what = "The Klarbox helper isn’t the genuine one.";
        break;
    case XPCError::Kind::interrupted:
        what = "The connection to the Klarbox helper ended.";
        break;
    }
    return {error.kind(), error.code(),
            fmt::format("{} {} “klarbox helper” tells more.", what, error.message())};
}

} // namespace

XPCConnection::Service HelperClient::installedHelper() {
    return {.socket = XPC::serviceSocket(HelperIdentity::machServiceName),
            .requirement = HelperIdentity::helperRequirement()};
}

std::unique_ptr<XPCConnection> HelperClient::takeIdle() const {
    const std::lock_guard lock(mutex_);
    if (idle_.empty()) {
        return nullptr;
    }
    auto connection = std::move(idle_.back());
    idle_.pop_back();
    return connection;
}

PrivilegedRemovalResult HelperClient::perform(const PrivilegedRequest &request,
                                              std::stop_token stop) const {
    const auto [selector, path] = message(request);
    if (selector.size() + 1 + path.size() > XPC::maximumMessageSize) {
        // What the helper says of every path that is too long; this one would not even fit a
        // message, which is no reason to take the helper for broken.
        return PrivilegedRemovalResult::refused(SafetyViolation::notInsideRoot);
    }
    try {
        auto connection = takeIdle();
        std::string reply;
        if (connection) {
            try {
                reply = connection->send(selector, path, stop, waiting_);
            } catch (const XPCError &) {
                // The helper may have been restarted since, or have given the place to others.
                if (!connection->lastMessageWasUnsent() || stop.stop_requested()) {
                    throw;
                }
                connection.reset();
            }
        }
        if (!connection) {
            connection = std::make_unique<XPCConnection>(service_);
            reply = connection->send(selector, path, stop, waiting_);
        }
        auto result = PrivilegedRemovalResult::decode(reply);
        const std::lock_guard lock(mutex_);
        idle_.push_back(std::move(connection));
        return result;
    } catch (const XPCError &error) {
        throw explained(error);
    }
}

} // namespace klarbox
