#include "KlarboxKit/Platform/Linux/Verification.hpp"

#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include <cerrno>
#include <utility>

namespace klarbox::Verification {

PlatformError refusal(std::string reason) {
    return {PlatformError::Domain::posix, EACCES, std::move(reason)};
}

UniqueFD receiveDescriptor(const UniqueFD &socket, std::string *bytes) {
    auto packet = receivePacket(socket, longestPacket, true);
    if (!packet || !packet->attachment) {
        // Instead of a descriptor there may be a reason why there is none.
        throw refusal(packet ? packet->bytes : "The verification was broken off.");
    }
    if (bytes != nullptr) {
        *bytes = std::move(packet->bytes);
    }
    return std::move(packet->attachment);
}

std::string encoded(const SigningInformation &information) {
    JSON verdict;
    verdict["endsInAnchor"] = information.endsInAnchor;
    verdict["identifier"] = information.identifier;
    verdict["teamID"] = information.teamID;
    verdict["version"] = information.version;
    verdict["isXPCClient"] = information.isXPCClient;
    return encodeJSON(verdict);
}

std::string encodedRefusal(std::string_view reason) {
    JSON verdict;
    verdict["refusal"] = reason;
    return encodeJSON(verdict);
}

SigningInformation decoded(const std::string &verdict) {
    const auto record = parseJSON(verdict);
    if (record.contains("refusal")) {
        throw refusal(requiredString(record, "refusal"));
    }
    return {.endsInAnchor = requiredMember(record, "endsInAnchor").get<bool>(),
            .identifier = requiredString(record, "identifier"),
            .teamID = requiredString(record, "teamID"),
            .version = requiredString(record, "version"),
            .isXPCClient = requiredMember(record, "isXPCClient").get<bool>()};
}

} // namespace klarbox::Verification
