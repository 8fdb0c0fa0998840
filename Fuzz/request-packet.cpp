// A peer's packet on its way through the helper: received, taken apart, judged. Paths in it are
// those of a small make-believe disk; what the helper would remove is looked at, not removed.
#include "KlarboxKit/Helper/HelperService.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <sys/socket.h>
#include <unistd.h>

#include "Fuzz/Target.hpp"

namespace {

using namespace klarbox;
using fuzz::require;

const test::TemporaryTree &disk() {
    static const test::TemporaryTree tree{
        {"Library/Caches/app/.git/x", test::bytes(1)},
        {"Library/Caches/App 2/x", test::bytes(1)},
        {"Library/Logs/x.log", test::bytes(1)},
        {"Users/ann/Documents/x", test::bytes(1)},
        {"Library/Caches/out", test::link("../../Users/ann")},
        {"Library/Again", test::link("Caches")},
    };
    return tree;
}

std::vector<FileURL> roots() {
    return {disk() / "Library/Caches", disk() / "Library/Logs"};
}

class Witness final : public ItemRemover {
public:
    void moveToTrash(const FileURL &) const override {
        require(false, "nothing goes to the Trash");
    }
    void deletePermanently(const FileURL &url) const override {
        const auto folder = FileManager::realPath(url.parent().path());
        require(folder && FileManager::type(url), "what is removed is there");
        const auto real = *folder + "/" + std::string(url.lastComponent());
        const bool isInside = std::ranges::any_of(
            roots(), [&](const FileURL &root) { return real.starts_with(root.path() + "/"); });
        require(isInside && !url.path().ends_with("/.."), "it lies below a root");
        require((real + "/").find("/.git/") == std::string::npos, "it is no history");
    }
};

XPCInterface interface() {
    const PrivilegedRequestHandler handler(
        roots(), std::make_shared<const SafetyGuard>(disk() / "Users/ann"),
        std::make_shared<const Witness>());
    return klarboxHelperInterface(std::make_shared<const HelperService>(
        handler, [](const PrivilegedRequest &request, const PrivilegedRemovalResult &result) {
            require(!requestSummary(request, result).empty(), "every request is logged");
        }));
}

} // namespace

void klarbox::fuzz::run(std::string_view input) {
    static const auto methods = interface();
    std::string bytes(input);
    if (const auto slash = bytes.find(std::string_view("\0/", 2)); slash != std::string::npos) {
        bytes.insert(slash + 1, disk().root().path());
    }
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "a socket");
    const UniqueFD peer(ends[0]);
    const UniqueFD helper(ends[1]);
    requestSenders(helper);
    sendPacket(peer, bytes);
    const auto packet = receivePacket(helper, XPC::maximumMessageSize);
    const bool isTakeable = !bytes.empty() && bytes.size() <= XPC::maximumMessageSize;
    require(packet.has_value() == isTakeable, "packets are taken whole or not at all");
    if (!packet) {
        return;
    }
    require(packet->bytes == bytes && packet->sender.pid == ::getpid(), "it comes as sent");
    const auto nul = bytes.find('\0');
    const auto *method =
        nul == std::string::npos ? nullptr : methods.find(std::string_view(bytes).substr(0, nul));
    if (method != nullptr) {
        int replies = 0;
        const auto count = [&](std::string_view reply) {
            ++replies;
            require(reply.size() <= XPC::maximumReplySize, "a reply fits");
            const auto result = PrivilegedRemovalResult::decode(reply);
            require(result.removedCount + result.failedCount >= 0, "it counts");
        };
        (*method)(bytes.substr(nul + 1), count, {});
        require(replies == 1, "a request has one reply");
    }
}
