#include "KlarboxKit/Helper/HelperService.hpp"

#include "KlarboxKit/Foundation/Overloaded.hpp"

#include <variant>

#include <fmt/format.h>

namespace klarbox {

void HelperService::removeItem(const std::string &atPath, const XPCReply &reply,
                               const std::function<bool()> &isCancelled) const {
    answer(PrivilegedRequest::removeItem(atPath), reply, isCancelled);
}

void HelperService::removeContents(const std::string &ofDirectoryAtPath, const XPCReply &reply,
                                   const std::function<bool()> &isCancelled) const {
    answer(PrivilegedRequest::removeContents(ofDirectoryAtPath), reply, isCancelled);
}

void HelperService::answer(const PrivilegedRequest &request, const XPCReply &reply,
                           const std::function<bool()> &isCancelled) const {
    const auto result = handler_.handle(request, isCancelled);
    log_(request, result);
    reply(result.encoded());
}

std::string requestSummary(const PrivilegedRequest &request,
                           const PrivilegedRemovalResult &result) {
    const auto [name, path] = std::visit(overloaded{[](const PrivilegedRequest::RemoveItem &r) {
                                                        return std::pair("removeItem", r.path);
                                                    },
                                                    [](const PrivilegedRequest::RemoveContents &r) {
                                                        return std::pair("removeContents", r.path);
                                                    }},
                                         request.value());
    return fmt::format("{} {}: removed {}, failed {}, {} bytes", name, path, result.removedCount,
                       result.failedCount, result.bytes);
}

} // namespace klarbox
