#pragma once

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <string>
#include <string_view>

/// What the two processes say to each other about one peer, on a socket of its own.
///
/// The one that serves sends the peer's number and descriptor; the one that verifies answers with
/// the executable and the memory of the peer's program; the first opens the executable and the
/// signature, which takes power over files, and sends both; the second sends the verdict. Whoever
/// closes the socket ends the conversation.
namespace klarbox::Verification {

inline constexpr std::size_t longestPacket = std::size_t{64} << 10;

/// Why a peer is not to be served.
PlatformError refusal(std::string reason);

/// The next packet's descriptor, and its bytes where they are wanted. Throws a `PlatformError` when
/// none comes: then the packet says why, or the conversation is over.
UniqueFD receiveDescriptor(const UniqueFD &socket, std::string *bytes = nullptr);

/// A verdict as it is sent.
std::string encoded(const SigningInformation &information);
std::string encodedRefusal(std::string_view reason);

/// What a verdict says. Throws a `PlatformError` for a refusal, and for what is no verdict.
SigningInformation decoded(const std::string &verdict);

} // namespace klarbox::Verification
