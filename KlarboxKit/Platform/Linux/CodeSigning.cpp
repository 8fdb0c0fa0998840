#include "KlarboxKit/Platform/CodeSigning.hpp"

#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Platform/Linux/ELFSection.hpp"
#include "KlarboxKit/Platform/Linux/XPCPacket.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/PropertyList.hpp"
#include "KlarboxKit/Platform/Text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <climits>
#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace klarbox {

namespace {

template <auto function>
struct Releaser {
    template <typename T>
    void operator()(T *object) const {
        function(object);
    }
};

using BIOOwner = std::unique_ptr<BIO, Releaser<BIO_free>>;
using CMSOwner = std::unique_ptr<CMS_ContentInfo, Releaser<CMS_ContentInfo_free>>;
using CertificateOwner = std::unique_ptr<X509, Releaser<X509_free>>;
using StoreOwner = std::unique_ptr<X509_STORE, Releaser<X509_STORE_free>>;
using BIOMethodOwner = std::unique_ptr<BIO_METHOD, Releaser<BIO_meth_free>>;

/// A signature with a chain of certificates is a few kilobytes.
constexpr std::size_t longestSignature = std::size_t{64} << 10;
constexpr std::size_t longestAnchor = std::size_t{64} << 10;

PlatformError invalid(std::string message) {
    return {PlatformError::Domain::cocoa, PlatformError::fileReadUnknown, std::move(message)};
}

/// The oldest of the errors that libcrypto left behind: what went wrong first.
std::string cryptoReason() {
    const auto code = ERR_peek_error();
    const char *reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    std::string text = reason == nullptr ? "no reason given" : reason;
    // The verdict on the certificates is only in the data attached to the error.
    const char *data = nullptr;
    int flags = 0;
    if (ERR_peek_last_error_all(nullptr, nullptr, nullptr, &data, &flags) != 0 &&
        (flags & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
        text += fmt::format(" ({})", data);
    }
    ERR_clear_error();
    return Text::visible(text);
}

/// No configuration file: what one may load has no place in a root daemon, nor in a program whose
/// environment the caller chose.
void prepareLibrary() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
    ERR_clear_error();
}

// MARK: The executable as a stream

/// What was read of an executable before it was verified, to be compared with what is verified.
/// Whoever can write to the file could otherwise show one content to the verification and another
/// to whoever asks what the verified program is.
class Excerpts {
public:
    void read(const UniqueFD &file, void *buffer, std::size_t size, std::uint64_t offset) {
        // A file that ends too early now may be longer when it is verified.
        if (!readExactly(file, buffer, size, offset)) {
            throw invalid("The executable is damaged.");
        }
        excerpts_.push_back({offset, std::string(static_cast<const char *>(buffer), size), 0});
    }

    /// Told about all bytes of the executable in order; false when they are not those read before.
    bool agreeWith(std::string_view bytes, std::uint64_t offset) {
        for (auto &excerpt : excerpts_) {
            const auto from = std::max(offset, excerpt.offset);
            const auto to = std::min(offset + bytes.size(), excerpt.offset + excerpt.bytes.size());
            if (from >= to) {
                continue;
            }
            if (bytes.substr(from - offset, to - from) !=
                std::string_view(excerpt.bytes).substr(from - excerpt.offset, to - from)) {
                return false;
            }
            excerpt.compared += to - from;
        }
        return true;
    }

    /// Whether the comparison came by all of them.
    bool areCompared() const {
        return std::ranges::all_of(excerpts_,
                                   [](const Excerpt &e) { return e.compared == e.bytes.size(); });
    }

private:
    struct Excerpt {
        std::uint64_t offset;
        std::string bytes;
        std::size_t compared;
    };
    std::vector<Excerpt> excerpts_;
};

struct ExecutableStream {
    int fd;
    Excerpts excerpts = {};
    off_t offset = 0;
    const char *problem = nullptr; ///< what is wrong with the bytes themselves
};

/// Reads through `pread`, because the descriptor may be shared with another process, and no further
/// than an executable may be long, because a hostile file system can serve bytes for ever.
int readExecutable(BIO *bio, char *buffer, std::size_t size, std::size_t *got) {
    auto &stream = *static_cast<ExecutableStream *>(BIO_get_data(bio));
    *got = 0;
    if (stream.offset > static_cast<off_t>(Code::maximumSize)) {
        stream.problem = "it is too long";
        return -1;
    }
    ssize_t count = 0;
    do {
        count = ::pread(stream.fd, buffer, size, stream.offset);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return static_cast<int>(count);
    }
    if (!stream.excerpts.agreeWith({buffer, static_cast<std::size_t>(count)},
                                   static_cast<std::uint64_t>(stream.offset))) {
        stream.problem = "it changed while it was being verified";
        return -1;
    }
    stream.offset += count;
    *got = static_cast<std::size_t>(count);
    return 1;
}

long controlExecutable(BIO *, int command, long, void *) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

const BIO_METHOD *executableMethod() {
    static const BIOMethodOwner method = [] {
        BIOMethodOwner made(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "executable"));
        if (!made || BIO_meth_set_read_ex(made.get(), readExecutable) != 1 ||
            BIO_meth_set_ctrl(made.get(), controlExecutable) != 1) {
            throw invalid("The signature could not be checked: " + cryptoReason());
        }
        return made;
    }();
    return method.get();
}

// MARK: Anchors

/// Only its owner (or root) may have written what trust rests on.
void requireUnforgeable(const UniqueFD &fd, const std::string &path, uid_t owner) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        throw PlatformError::posix(errno);
    }
    // A sticky folder (a temporary one on the way to the anchors of a test) lets others add names
    // but not replace these.
    const bool isSticky = S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
    if ((st.st_uid != owner && st.st_uid != 0) ||
        ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !isSticky)) {
        throw invalid(fmt::format("“{}” is not trusted: others may change it.", path));
    }
}

UniqueFD openAnchorFolder(const CodeAnchors &anchors) {
    UniqueFD fd(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string path;
    std::string_view rest = anchors.folder.path();
    while (fd && !rest.empty()) {
        rest.remove_prefix(1);
        const auto component = std::string(rest.substr(0, rest.find('/')));
        rest.remove_prefix(component.size());
        path += "/" + component;
        fd.reset(
            ::openat(fd.get(), component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (fd) {
            requireUnforgeable(fd, path, anchors.owner);
        }
    }
    if (!fd) {
        const int code = errno;
        throw PlatformError::cocoa(
            PlatformError::fileReadUnknown,
            fmt::format("The folder of anchors “{}” could not be opened.", anchors.folder.path()),
            code);
    }
    return fd;
}

void addAnchors(X509_STORE *store, const UniqueFD &folder, const std::string &name,
                const CodeAnchors &anchors) {
    const auto path = anchors.folder.appending(name).path();
    const UniqueFD fd(
        ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        throw PlatformError::cocoa(PlatformError::fileReadUnknown,
                                   fmt::format("The anchor “{}” could not be read.", path), errno);
    }
    requireUnforgeable(fd, path, anchors.owner);
    if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(longestAnchor)) {
        throw invalid(fmt::format("The anchor “{}” is no file of certificates.", path));
    }
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    const auto got = ::pread(fd.get(), bytes.data(), bytes.size(), 0);
    if (got != st.st_size) {
        throw invalid(fmt::format("The anchor “{}” could not be read.", path));
    }
    const BIOOwner bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    bool hasAny = false;
    while (const auto certificate =
               CertificateOwner(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))) {
        hasAny = true;
        if (X509_STORE_add_cert(store, certificate.get()) != 1) {
            throw invalid(fmt::format("The anchor “{}” is unusable: {}", path, cryptoReason()));
        }
    }
    ERR_clear_error();
    if (!hasAny) {
        throw invalid(fmt::format("The anchor “{}” is no file of certificates.", path));
    }
}

StoreOwner anchorStore(const CodeAnchors &anchors) {
    StoreOwner store(X509_STORE_new());
    if (!store) {
        throw invalid("The anchors could not be loaded: " + cryptoReason());
    }
    auto folder = openAnchorFolder(anchors);
    UniqueFD listed(::fcntl(folder.get(), F_DUPFD_CLOEXEC, 0));
    const std::unique_ptr<DIR, Releaser<::closedir>> listing(listed ? ::fdopendir(listed.get())
                                                                    : nullptr);
    if (!listing) {
        throw PlatformError::posix(errno);
    }
    listed.release(); // the stream's to close
    // The stream is this call's own. NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent *entry = ::readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name.ends_with(".pem") && !name.starts_with('.')) {
            addAnchors(store.get(), folder, name, anchors);
        }
    }
    // An anchor need not be self-signed to be where trust ends, and what a certificate may be used
    // for is judged here (the library's own notion for CMS is electronic mail).
    X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
    X509_STORE_set_purpose(store.get(), X509_PURPOSE_ANY);
    // Nothing weaker than 112 bits of security, digests of certificates included.
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_get0_param(store.get()), 2);
    return store;
}

// MARK: The signature

std::string pathOf(const UniqueFD &file) {
    std::string path(PATH_MAX, '\0');
    const auto length =
        ::readlink(fmt::format("/proc/self/fd/{}", file.get()).c_str(), path.data(), path.size());
    if (length < 0) {
        throw PlatformError::posix(errno);
    }
    path.resize(static_cast<std::size_t>(length));
    return path;
}

/// The bytes of the file beside the executable, where anyone may have put anything: nothing but a
/// regular file is opened for reading, because opening a device can already do something.
std::string signatureBytes(const FileURL &url) {
    const UniqueFD found(::open(url.path().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    if (!found || ::fstat(found.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        throw invalid(fmt::format("There is no signature “{}”.", Text::visible(url.path())));
    }
    return FileManager::contents(FileURL(fmt::format("/proc/self/fd/{}", found.get())),
                                 longestSignature);
}

CMSOwner readSignature(const std::string &bytes) {
    const auto *at = reinterpret_cast<const unsigned char *>(bytes.data());
    const auto *end = at + bytes.size();
    CMSOwner cms(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(bytes.size())));
    if (!cms || at != end) {
        throw invalid("The signature is no CMS message in DER.");
    }
    if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed ||
        CMS_is_detached(cms.get()) != 1) {
        throw invalid("The signature is no detached CMS signature.");
    }
    return cms;
}

/// The one signer. With several, "the signing certificate" would have no meaning.
CMS_SignerInfo *soleSigner(CMS_ContentInfo *cms) {
    auto *signers = CMS_get0_SignerInfos(cms);
    if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != 1) {
        throw invalid("The signature does not have exactly one signer.");
    }
    auto *signer = sk_CMS_SignerInfo_value(signers, 0);
    X509_ALGOR *digest = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
    switch (digest == nullptr ? NID_undef : OBJ_obj2nid(digest->algorithm)) {
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
        return signer;
    default:
        throw invalid("The signature's digest is not one of the SHA-2 family.");
    }
}

/// A certificate that says what it is for must be for signing code (or messages, which is what the
/// command-line tools make), so that the anchor's other certificates cannot sign programs.
void requireSigningCertificate(X509 *certificate) {
    const auto extendedUsage = X509_get_extended_key_usage(certificate);
    constexpr std::uint32_t fitting = XKU_CODE_SIGN | XKU_SMIME | XKU_ANYEKU;
    if ((X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) == 0 ||
        (extendedUsage != UINT32_MAX && (extendedUsage & fitting) == 0)) {
        throw invalid("The signing certificate is not one for signing code.");
    }
}

/// The subject's organisational unit; empty unless there is exactly one.
std::string organisationalUnit(X509 *certificate) {
    const auto *subject = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
    if (index < 0 || X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, index) >= 0) {
        return {};
    }
    const auto *value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char *text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, value);
    if (length < 0) {
        ERR_clear_error();
        return {};
    }
    std::string unit(reinterpret_cast<const char *>(text), static_cast<std::size_t>(length));
    OPENSSL_free(text);
    return unit;
}

} // namespace

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

SigningInformation Code::signingInformation(const CodeAnchors &anchors) const {
    prepareLibrary();
    struct stat st {};
    if (::fstat(executable_.get(), &st) != 0) {
        throw PlatformError::posix(errno);
    }
    if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(maximumSize)) {
        throw invalid("The executable is no regular file of a reasonable size.");
    }
    // The name only says where to look: whatever lies there counts for nothing unless it is a
    // signature over the bytes that are open.
    const auto path = pathOf(executable_);
    const auto cms = readSignature(signatureBytes(FileURL(path + ".cms")));
    auto *signer = soleSigner(cms.get());
    const auto store = anchorStore(anchors);

    ExecutableStream stream{.fd = executable_.get()};
    const ExecutableReader read = [&](void *buffer, std::size_t size, std::uint64_t offset) {
        stream.excerpts.read(executable_, buffer, size, offset);
        return true;
    };
    const auto plist = elfSection(read, infoPlistSection);
    const bool isXPCClient = elfSection(read, xpcClientSection).has_value();

    const BIOOwner source(BIO_new(executableMethod()));
    const BIOOwner buffered(BIO_new(BIO_f_buffer()));
    if (!source || !buffered || BIO_set_read_buffer_size(buffered.get(), 128L << 10) != 1) {
        throw invalid("The signature could not be checked: " + cryptoReason());
    }
    BIO_set_data(source.get(), &stream);
    BIO_set_init(source.get(), 1);
    BIO_push(buffered.get(), source.get());
    const int verdict =
        CMS_verify(cms.get(), nullptr, store.get(), buffered.get(), nullptr, CMS_BINARY);
    BIO_pop(source.get());
    if (stream.problem == nullptr && verdict == 1 && !stream.excerpts.areCompared()) {
        stream.problem = "it changed while it was being verified";
    }
    if (verdict != 1 || stream.problem != nullptr) {
        const auto reason = cryptoReason();
        throw invalid(fmt::format("The signature of “{}” is not valid: {}", Text::visible(path),
                                  stream.problem != nullptr ? stream.problem : reason));
    }
    X509 *certificate = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
    if (certificate == nullptr) {
        throw invalid("The signature does not carry the signing certificate.");
    }
    requireSigningCertificate(certificate);

    if (!plist) {
        throw invalid(
            fmt::format("“{}” carries no information property list.", Text::visible(path)));
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
            .teamID = organisationalUnit(certificate),
            .version = string("CFBundleShortVersionString"),
            .isXPCClient = isXPCClient};
}

} // namespace klarbox
