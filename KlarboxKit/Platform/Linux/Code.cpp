#include "KlarboxKit/Platform/Code.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Platform/Linux/AnchorStore.hpp"
#include "KlarboxKit/Platform/Linux/DetachedSignature.hpp"
#include "KlarboxKit/Platform/Linux/ELFSection.hpp"
#include "KlarboxKit/Platform/Linux/Excerpts.hpp"
#include "KlarboxKit/Platform/Linux/LibCrypto.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace klarbox {

namespace {

using LibCrypto::invalid;

/// How much of an executable is read at a time: what fits into the processor's nearer caches, and
/// so little that a cancellation is seen at once.
constexpr std::size_t pieceSize = std::size_t{128} << 10;

struct stat statusOf(const UniqueFD &file) {
    struct stat st {};
    if (::fstat(file.get(), &st) != 0) {
        throw PlatformError::posix(errno);
    }
    return st;
}

std::string descriptorPath(const UniqueFD &file) {
    return fmt::format("/proc/self/fd/{}", file.get());
}

/// The path that the kernel knows an open file by; empty when it tells none.
std::string pathOf(const UniqueFD &file) {
    std::string path(PATH_MAX, '\0');
    const auto length = ::readlink(descriptorPath(file).c_str(), path.data(), path.size());
    path.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return path;
}

/// What an open file is called to people.
std::string shownName(const UniqueFD &file) {
    const auto path = pathOf(file);
    return Text::visible(path.empty() ? descriptorPath(file) : path);
}

bool leadsTo(const std::string &path, const UniqueFD &file) {
    const auto open = statusOf(file);
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 && found.st_dev == open.st_dev &&
           found.st_ino == open.st_ino;
}

std::string signatureBytes(const UniqueFD &file) {
    const auto st = statusOf(file);
    if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(Code::maximumSignatureSize)) {
        throw invalid(
            fmt::format("The signature “{}” is longer than one can be.", shownName(file)));
    }
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    if (!readExactly(file, bytes.data(), bytes.size(), 0)) {
        throw invalid(fmt::format("The signature “{}” could not be read.", shownName(file)));
    }
    return bytes;
}

void requireExecutable(const UniqueFD &file) {
    const auto st = statusOf(file);
    if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(Code::maximumSize)) {
        throw invalid("The executable is no regular file of a reasonable size.");
    }
}

void throwIfCancelled(const std::function<bool()> &isCancelled) {
    if (isCancelled && isCancelled()) {
        throw PlatformError(PlatformError::Domain::posix, ECANCELED,
                            "The verification of a program was cancelled.");
    }
}

/// Reads at most a piece through `pread`, because the descriptor may be shared with another
/// process.
std::string_view readPiece(const UniqueFD &file, char *buffer, std::uint64_t offset) {
    ssize_t count = 0;
    do {
        count = ::pread(file.get(), buffer, pieceSize, static_cast<off_t>(offset));
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw PlatformError::posix(errno);
    }
    return {buffer, static_cast<std::size_t>(count)};
}

/// Verifies that the signature is over all bytes of the executable, those read before included.
void verifyBytes(const UniqueFD &executable, DetachedSignature &signature, Excerpts &excerpts,
                 const std::function<bool()> &isCancelled) {
    const auto changed = [&] {
        return invalid(fmt::format("The signature of “{}” is not valid: it changed while it was "
                                   "being verified",
                                   shownName(executable)));
    };
    const auto buffer = std::make_unique_for_overwrite<char[]>(pieceSize);
    std::uint64_t offset = 0;
    while (true) {
        throwIfCancelled(isCancelled);
        const auto piece = readPiece(executable, buffer.get(), offset);
        if (piece.empty()) {
            break;
        }
        if (!excerpts.agreeWith(piece, offset)) {
            throw changed();
        }
        signature.add(piece);
        offset += piece.size();
        // A hostile file system can serve bytes for ever.
        if (offset > Code::maximumSize) {
            throw changed();
        }
    }
    signature.verifyContent();
    if (!excerpts.areCompared()) {
        throw changed();
    }
}

} // namespace

FileURL CodeAnchors::installed() {
    return FileURL("/etc/klarbox/anchors", true);
}

Code Code::ofCurrentProcess() {
    return at(FileURL("/proc/self/exe"));
}

Code Code::at(const FileURL &url) {
    // Never waits, whatever is at the path.
    UniqueFD fd(::open(url.path().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) {
        throw PlatformError::posix(errno);
    }
    return Code(std::move(fd));
}

UniqueFD Code::openSignature(const UniqueFD &executable) {
    // The name only says where to look: whatever lies there counts for nothing unless it is a
    // signature over the bytes that are open. But a file that was removed is known by its name with
    // an addition, and that is another file's name.
    const auto path = pathOf(executable);
    if (!leadsTo(path, executable)) {
        throw invalid(
            fmt::format("The executable “{}” was replaced or removed.", shownName(executable)));
    }
    const auto beside = path + ".cms";
    // Opening a device can already do something, and anyone may have put one there.
    const UniqueFD found(::open(beside.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!found || ::fstat(found.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        throw invalid(fmt::format("There is no signature “{}”.", Text::visible(beside)));
    }
    UniqueFD signature(
        ::open(descriptorPath(found).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!signature) {
        const int code = errno;
        throw PlatformError::cocoa(
            PlatformError::fileReadUnknown,
            fmt::format("The signature “{}” could not be read.", Text::visible(beside)), code);
    }
    return signature;
}

SigningInformation Code::signingInformation(const CodeAnchors &anchors,
                                            const std::function<bool()> &isCancelled) const {
    throwIfCancelled(isCancelled);
    LibCrypto::prepare();
    requireExecutable(executable_);
    const auto bytes =
        signature_ ? signatureBytes(signature_) : signatureBytes(openSignature(executable_));
    DetachedSignature signature(bytes, shownName(executable_));
    signature.verifySigner(AnchorStore(anchors));

    Excerpts excerpts;
    const ExecutableReader read = [&](void *buffer, std::size_t size, std::uint64_t offset) {
        excerpts.read(executable_, buffer, size, offset);
        return true;
    };
    const auto plist = elfSection(read, infoPlistSection);
    const bool isXPCClient = elfSection(read, xpcClientSection).has_value();
    verifyBytes(executable_, signature, excerpts, isCancelled);

    if (!plist) {
        throw invalid(
            fmt::format("“{}” carries no information property list.", shownName(executable_)));
    }
    // Parsed only now that the bytes are known to be the signer's.
    const auto list = PropertyList::parse(*plist);
    const auto string = [&](std::string_view key) {
        const auto value = list.find(key);
        const auto text = value ? value->asString() : std::nullopt;
        return std::string(text.value_or(""));
    };
    return {.endsInAnchor = true,
            .identifier = string("CFBundleIdentifier"),
            .teamID = signature.organisationalUnit(),
            .version = string("CFBundleShortVersionString"),
            .isXPCClient = isXPCClient};
}

bool Code::satisfies(const CodeRequirement &requirement, const CodeAnchors &anchors) const {
    try {
        return requirement.isSatisfiedBy(signingInformation(anchors));
    } catch (const PlatformError &) {
        return false;
    }
}

} // namespace klarbox
