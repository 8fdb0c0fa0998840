#include "KlarboxKit/Platform/Linux/DecodedCertificates.hpp"

#include <algorithm>

#include <openssl/err.h>
#include <openssl/evp.h>

namespace klarbox {

namespace {

LibCrypto::CertificateOwner decoded(std::string_view bytes) {
    const auto *at = reinterpret_cast<const unsigned char *>(bytes.data());
    const auto *end = at + bytes.size();
    LibCrypto::CertificateOwner certificate(
        d2i_X509(nullptr, &at, static_cast<long>(bytes.size())));
    ERR_clear_error();
    return at == end ? std::move(certificate) : nullptr;
}

/// Verifying a chain completes a key that leaves its parameters to the issuer's: such a certificate
/// would not be the same for the next who asks.
bool changesWhenUsed(const X509 *certificate) {
    const EVP_PKEY *key = X509_get0_pubkey(certificate);
    ERR_clear_error();
    return key == nullptr || EVP_PKEY_missing_parameters(key) != 0;
}

} // namespace

LibCrypto::CertificateOwner DecodedCertificates::decode(std::string_view bytes) {
    const auto another = [](const LibCrypto::CertificateOwner &certificate) {
        X509_up_ref(certificate.get());
        return LibCrypto::CertificateOwner(certificate.get());
    };
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::ranges::find(kept_, bytes, &Kept::bytes);
        if (found != kept_.end()) {
            kept_.splice(kept_.begin(), kept_, found);
            return another(found->certificate);
        }
    }
    auto certificate = decoded(bytes);
    if (certificate && bytes.size() <= longestKept && !changesWhenUsed(certificate.get())) {
        const std::lock_guard lock(mutex_);
        kept_.push_front({std::string(bytes), another(certificate)});
        if (kept_.size() > mostKept) {
            kept_.pop_back();
        }
    }
    return certificate;
}

DecodedCertificates &DecodedCertificates::shared() {
    static DecodedCertificates certificates;
    return certificates;
}

} // namespace klarbox
