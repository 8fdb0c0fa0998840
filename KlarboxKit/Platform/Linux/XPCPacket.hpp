#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

namespace klarbox {

/// Section that declares a program to be a client (see `XPCListener`); what it holds is the
/// revision of the rules it keeps.
inline constexpr std::string_view xpcClientSection = "__xpc_client";

/// One packet and who sent it, as the kernel vouches.
struct XPCPacket {
    std::string bytes;
    ucred sender{};
    UniqueFD attachment; ///< the descriptor that came with it, if one was allowed

    /// The first packet a listener sends to a verified client.
    static constexpr std::string_view welcome = "welcome";
};

/// Makes the kernel say with every packet who sent it. Throws a POSIX `PlatformError`.
void requestSenders(const UniqueFD &socket);

/// Waits for the next packet. Nothing when the peer closed, or sent a packet that is empty, longer
/// than `limit`, or carries what it may not. Throws a POSIX `PlatformError` when receiving fails,
/// EAGAIN after the socket's time limit.
std::optional<XPCPacket> receivePacket(const UniqueFD &socket, std::size_t limit,
                                       bool takesAttachment = false);

/// Sends one packet, with a descriptor attached unless that is negative. Throws a POSIX
/// `PlatformError`.
void sendPacket(const UniqueFD &socket, std::string_view bytes, int attachment = -1);

} // namespace klarbox
