#include "KlarboxKit/Platform/Linux/AnchorStore.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Platform/Linux/DecodedCertificates.hpp"
#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace klarbox {

namespace {

using LibCrypto::invalid;

constexpr std::size_t longestAnchor = std::size_t{64} << 10;

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

/// The bytes of a file of anchors.
std::string anchorBytes(const UniqueFD &folder, const std::string &name, const std::string &path,
                        uid_t owner) {
    const UniqueFD fd(
        ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        const int code = errno;
        throw PlatformError::cocoa(PlatformError::fileReadUnknown,
                                   fmt::format("The anchor “{}” could not be read.", path), code);
    }
    requireUnforgeable(fd, path, owner);
    if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(longestAnchor)) {
        throw invalid(fmt::format("The anchor “{}” is no file of certificates.", path));
    }
    std::string bytes(static_cast<std::size_t>(st.st_size), '\0');
    if (!readExactly(fd, bytes.data(), bytes.size(), 0)) {
        throw invalid(fmt::format("The anchor “{}” could not be read.", path));
    }
    return bytes;
}

/// What the next block of a PEM file says in DER; empty after the last one.
std::string nextCertificate(BIO *pem) {
    unsigned char *bytes = nullptr;
    long length = 0;
    // For an encrypted block the library would ask on the terminal.
    const auto noPassword = [](char *, int, int, void *) { return -1; };
    if (PEM_bytes_read_bio(&bytes, &length, nullptr, PEM_STRING_X509, pem, noPassword, nullptr) !=
        1) {
        return {};
    }
    const std::unique_ptr<unsigned char, decltype([](unsigned char *p) { OPENSSL_free(p); })> owner(
        bytes);
    return {reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(length)};
}

} // namespace

AnchorStore::AnchorStore(const CodeAnchors &anchors)
    : store_(LibCrypto::made(LibCrypto::StoreOwner(X509_STORE_new()))) {
    const auto folder = openAnchorFolder(anchors);
    UniqueFD listed(::fcntl(folder.get(), F_DUPFD_CLOEXEC, 0));
    const std::unique_ptr<DIR, LibCrypto::Releaser<::closedir>> listing(
        listed ? ::fdopendir(listed.get()) : nullptr);
    if (!listing) {
        throw PlatformError::posix(errno);
    }
    listed.release(); // the stream's to close
    errno = 0;
    // The stream is this call's own. NOLINTNEXTLINE(concurrency-mt-unsafe)
    while (const dirent *entry = ::readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name.ends_with(".pem") && !name.starts_with('.')) {
            add(folder, name, anchors);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw PlatformError::posix(errno);
    }
    // An anchor need not be self-signed to be where trust ends, and what a certificate may be used
    // for is judged by us (this version of the library knows no purpose of signing code).
    X509_STORE_set_flags(store_.get(), X509_V_FLAG_PARTIAL_CHAIN);
    X509_STORE_set_purpose(store_.get(), X509_PURPOSE_ANY);
    X509_STORE_set_depth(store_.get(), mostIntermediates);
    // Nothing weaker than 112 bits of security, digests of certificates included.
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_get0_param(store_.get()), 2);
}

void AnchorStore::add(const UniqueFD &folder, const std::string &name, const CodeAnchors &anchors) {
    const auto path = anchors.folder.appending(name).path();
    const auto bytes = anchorBytes(folder, name, path, anchors.owner);
    const auto pem = LibCrypto::made(
        LibCrypto::BIOOwner(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()))));
    bool hasAny = false;
    for (auto der = nextCertificate(pem.get()); !der.empty(); der = nextCertificate(pem.get())) {
        const auto certificate = DecodedCertificates::shared().decode(der);
        if (!certificate || X509_STORE_add_cert(store_.get(), certificate.get()) != 1) {
            throw invalid(
                fmt::format("The anchor “{}” is unusable: {}", path, LibCrypto::reason()));
        }
        hasAny = true;
    }
    // The blocks end with there being none, and with nothing else: a file that is damaged behind
    // its first certificate is not what somebody wanted to trust.
    const auto end = ERR_peek_last_error();
    ERR_clear_error();
    if (!hasAny || ERR_GET_LIB(end) != ERR_LIB_PEM || ERR_GET_REASON(end) != PEM_R_NO_START_LINE) {
        throw invalid(fmt::format("The anchor “{}” is no file of certificates.", path));
    }
}

} // namespace klarbox
