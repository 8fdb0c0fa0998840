#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace klarbox {

/// Answers one message.
using XPCReply = std::function<void(std::string_view data)>;

/// The messages that an object behind a connection understands: for each selector what to do with
/// the message's one argument. Immutable value; the methods are called from the threads of all
/// connections at once.
class XPCInterface {
public:
    /// Calls its second argument once before it returns. While it works it may ask its third
    /// (empty: always no), on the thread it was called on, whether nobody waits for the reply any
    /// more.
    using Method = std::function<void(const std::string &argument, const XPCReply &reply,
                                      const std::function<bool()> &isCancelled)>;

    XPCInterface() = default;
    explicit XPCInterface(std::map<std::string, Method, std::less<>> methods)
        : methods_(std::move(methods)) {}

    /// Null when the selector is unknown.
    const Method *find(std::string_view selector) const {
        const auto found = methods_.find(selector);
        return found == methods_.end() ? nullptr : &found->second;
    }

private:
    std::map<std::string, Method, std::less<>> methods_;
};

/// What both ends of a connection share. A connection is a local socket that keeps the boundaries
/// of packets. A message is one packet: the selector, a NUL, and the argument's bytes; its reply is
/// one packet, the data as it is.
namespace XPC {

/// Longest message: a selector and the longest path that anything accepts, with room to spare.
inline constexpr std::size_t maximumMessageSize = 4096;
/// Longest reply.
inline constexpr std::size_t maximumReplySize = std::size_t{64} << 10;

/// Where the service of this name is reached.
FileURL serviceSocket(std::string_view serviceName);

/// A socket listening at `path`: the one that the service manager handed to this process, or a new
/// one, connectable by every local user, its folder made when missing. A socket that a process
/// which ended left there is replaced in one step. Throws `PlatformError`, also when another
/// process serves there already. `lock` is kept for as long as this process serves.
UniqueFD listen(const FileURL &path, UniqueFD &lock);

/// Tells the service manager, if one started this process, that it is ready to serve.
void announceReady();

} // namespace XPC

} // namespace klarbox
