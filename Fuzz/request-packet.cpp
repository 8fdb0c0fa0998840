// A peer's packet on its way through the helper: received, taken apart, judged. Paths in it are
// those of a small make-believe disk; what the helper would remove is looked at, not removed.
#include "KlarboxKit/Helper/HelperService.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

#include "Fuzz/Require.hpp"

namespace {

using namespace klarbox;
namespace fs = std::filesystem;

class World {
public:
    World() {
        auto name = (fs::temp_directory_path() / "klarbox-fuzz.XXXXXX").string();
        fuzz::require(::mkdtemp(name.data()) != nullptr, "a folder is made");
        disk_ = fs::canonical(name);
        for (const auto *path : {"Library/Caches/app/.git/x", "Library/Caches/App 2/x",
                                 "Library/Logs/x.log", "Users/ann/Documents/x"}) {
            fs::create_directories((disk_ / path).parent_path());
            std::ofstream(disk_ / path) << path;
        }
        fs::create_symlink("../../Users/ann", disk_ / "Library/Caches/out");
        fs::create_symlink("Caches", disk_ / "Library/Again");
    }
    ~World() {
        std::error_code ignored;
        fs::remove_all(disk_, ignored);
    }
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    std::string path(std::string_view below) const { return disk_.string() + std::string(below); }
    std::vector<FileURL> roots() const {
        return {FileURL(path("/Library/Caches"), true), FileURL(path("/Library/Logs"), true)};
    }

private:
    fs::path disk_;
};

const World &world() {
    static const World world;
    return world;
}

class Witness final : public ItemRemover {
public:
    void moveToTrash(const FileURL &) const override {
        fuzz::require(false, "nothing goes to the Trash");
    }
    void deletePermanently(const FileURL &url) const override {
        const auto folder = FileManager::realPath(url.parent().path());
        fuzz::require(folder && FileManager::type(url), "what is removed is there");
        const auto real = *folder + "/" + std::string(url.lastComponent());
        bool isInside = false;
        for (const auto &root : world().roots()) {
            isInside = isInside || real.starts_with(root.path() + "/");
        }
        fuzz::require(isInside && !url.path().ends_with("/.."), "it lies below a root");
        fuzz::require((real + "/").find("/.git/") == std::string::npos, "it is no history");
    }
};

XPCInterface interface() {
    const PrivilegedRequestHandler handler(
        world().roots(), std::make_shared<const SafetyGuard>(FileURL(world().path("/Users/ann"))),
        std::make_shared<const Witness>());
    return klarboxHelperInterface(std::make_shared<const HelperService>(
        handler, [](const PrivilegedRequest &request, const PrivilegedRemovalResult &result) {
            fuzz::require(!requestSummary(request, result).empty(), "every request is logged");
        }));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const auto methods = interface();
    std::string bytes(reinterpret_cast<const char *>(data), size);
    if (const auto slash = bytes.find(std::string_view("\0/", 2)); slash != std::string::npos) {
        bytes.insert(slash + 1, world().path(""));
    }
    int ends[2];
    fuzz::require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "a socket");
    const UniqueFD peer(ends[0]);
    const UniqueFD helper(ends[1]);
    requestSenders(helper);
    sendPacket(peer, bytes);
    const auto packet = receivePacket(helper, XPC::maximumMessageSize);
    const bool isTakeable = !bytes.empty() && bytes.size() <= XPC::maximumMessageSize;
    fuzz::require(packet.has_value() == isTakeable, "packets are taken whole or not at all");
    if (!packet) {
        return 0;
    }
    fuzz::require(packet->bytes == bytes && packet->sender.pid == ::getpid(), "it comes as sent");
    const auto nul = bytes.find('\0');
    const auto *method =
        nul == std::string::npos ? nullptr : methods.find(std::string_view(bytes).substr(0, nul));
    if (method != nullptr) {
        int replies = 0;
        (*method)(bytes.substr(nul + 1), [&](std::string_view reply) {
            ++replies;
            fuzz::require(reply.size() <= XPC::maximumReplySize, "a reply fits");
            const auto result = PrivilegedRemovalResult::decode(reply);
            fuzz::require(result.removedCount + result.failedCount >= 0, "it counts");
        });
        fuzz::require(replies == 1, "a request has one reply");
    }
    return 0;
}
