#include "KlarboxHelper/ListenerDelegate.hpp"

#include "KlarboxHelper/Log.hpp"
#include "KlarboxKit/Helper/HelperIdentity.hpp"
#include "KlarboxKit/Helper/PrivilegedRoots.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <chrono>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::chrono::seconds refusalLogInterval(1);

PrivilegedRequestHandler handlerOfThisMachine() {
    const auto roots = PrivilegedRoots::ofThisMachine().all();
    return {std::vector(roots.begin(), roots.end()),
            std::make_shared<const SafetyGuard>(FileManager::homeDirectory()),
            std::make_shared<const SecureDeleter>()};
}

void logRequest(const PrivilegedRequest &request, const PrivilegedRemovalResult &result) {
    Log::requests().log(SystemLog::Level::notice, requestSummary(request, result));
}

} // namespace

ListenerDelegate::ListenerDelegate()
    : service_(std::make_shared<const HelperService>(handlerOfThisMachine(), logRequest)) {}

bool ListenerDelegate::shouldAcceptNewConnection(XPCIncomingConnection &connection) {
    connection.setCodeSigningRequirement(HelperIdentity::appRequirement());
    connection.setExportedInterface(klarboxHelperInterface(service_));
    connection.resume();
    return true;
}

void ListenerDelegate::connectionRefused(uid_t user, std::string_view reason) {
    using std::chrono::steady_clock;
    const auto now = steady_clock::now().time_since_epoch().count();
    auto next = nextRefusalLog_.load();
    if (now < next || !nextRefusalLog_.compare_exchange_strong(
                          next, now + steady_clock::duration(refusalLogInterval).count())) {
        ++unloggedRefusals_;
        return;
    }
    const auto others = unloggedRefusals_.exchange(0);
    Log::connections().log(SystemLog::Level::info,
                           others == 0 ? fmt::format("refused user {}: {}", user, reason)
                                       : fmt::format("refused user {}: {} (and {} others before)",
                                                     user, reason, others));
}

} // namespace klarbox
