#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/uio.h>

namespace klarbox {

namespace {

/// Exactly what is wanted: with room for no more, the kernel opens no descriptor that a peer
/// attaches unasked.
constexpr std::size_t senderSpace = CMSG_SPACE(sizeof(ucred));
constexpr std::size_t attachmentSpace = CMSG_SPACE(sizeof(int));

} // namespace

void requestSenders(const UniqueFD &socket) {
    const int on = 1;
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
        throw PlatformError::posix(errno);
    }
}

std::optional<XPCPacket> receivePacket(const UniqueFD &socket, std::size_t limit,
                                       bool takesAttachment) {
    XPCPacket packet;
    packet.bytes.resize(limit);
    iovec data{.iov_base = packet.bytes.data(), .iov_len = packet.bytes.size()};
    alignas(cmsghdr) std::array<char, senderSpace + attachmentSpace> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = takesAttachment ? control.size() : senderSpace;
    ssize_t got = 0;
    do {
        got = ::recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        throw PlatformError::posix(errno);
    }
    for (auto *header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET) {
            continue;
        }
        if (header->cmsg_type == SCM_CREDENTIALS) {
            std::memcpy(&packet.sender, CMSG_DATA(header), sizeof packet.sender);
        } else if (header->cmsg_type == SCM_RIGHTS) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            packet.attachment.reset(fd);
        }
    }
    if (got == 0 || (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        return std::nullopt;
    }
    packet.bytes.resize(static_cast<std::size_t>(got));
    return packet;
}

void sendPacket(const UniqueFD &socket, std::string_view bytes, int attachment) {
    iovec data{.iov_base = const_cast<char *>(bytes.data()), .iov_len = bytes.size()};
    alignas(cmsghdr) std::array<char, attachmentSpace> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (attachment >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        auto *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof attachment);
        std::memcpy(CMSG_DATA(header), &attachment, sizeof attachment);
    }
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(socket.get(), &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        throw PlatformError::posix(errno);
    }
}

} // namespace klarbox
