#include "KlarboxKit/Platform/Linux/DetachedSignature.hpp"

#include "KlarboxKit/Platform/Linux/DecodedCertificates.hpp"
#include "KlarboxKit/Platform/Linux/SignatureShape.hpp"

#include <cstdint>

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

namespace klarbox {

namespace {

using LibCrypto::invalid;
using LibCrypto::made;

LibCrypto::CMSOwner decoded(const std::string &message) {
    const auto *at = reinterpret_cast<const unsigned char *>(message.data());
    const auto *end = at + message.size();
    LibCrypto::CMSOwner cms(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(message.size())));
    if (!cms || at != end) {
        ERR_clear_error();
        throw invalid("The signature is no CMS message in DER.");
    }
    return cms;
}

LibCrypto::CertificateListOwner
listOf(const std::vector<LibCrypto::CertificateOwner> &certificates) {
    auto list = made(LibCrypto::CertificateListOwner(sk_X509_new_null()));
    for (const auto &certificate : certificates) {
        if (sk_X509_push(list.get(), certificate.get()) <= 0) {
            throw invalid("The signature could not be checked: " + LibCrypto::reason());
        }
    }
    return list;
}

/// The signed bytes must be said to be plain data: what the signer signed as something else (a
/// time stamp, say) was not meant to be a program.
bool isOverData(const CMS_SignerInfo *signer) {
    // Exactly one attribute of this type with exactly one value.
    constexpr int only = -3;
    const auto *type = static_cast<const ASN1_OBJECT *>(CMS_signed_get0_data_by_OBJ(
        signer, OBJ_nid2obj(NID_pkcs9_contentType), only, V_ASN1_OBJECT));
    return type != nullptr && OBJ_obj2nid(type) == NID_pkcs7_data;
}

bool mayExtendToCode(X509 *certificate) {
    return (X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) == 0 ||
           (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0;
}

/// A certificate must say what it is for, and be for signing code, so that the anchor's other
/// certificates cannot sign programs.
void requireSigningCertificate(X509 *certificate) {
    const auto flags = X509_get_extension_flags(certificate);
    const auto usage = X509_get_key_usage(certificate);
    constexpr std::uint32_t says = EXFLAG_KUSAGE | EXFLAG_XKUSAGE;
    if ((flags & says) != says || (usage & KU_DIGITAL_SIGNATURE) == 0 ||
        !mayExtendToCode(certificate)) {
        throw invalid("The signing certificate is not one for signing code.");
    }
    if ((flags & EXFLAG_CA) != 0 || (usage & KU_KEY_CERT_SIGN) != 0) {
        throw invalid("The signing certificate is an authority's.");
    }
}

} // namespace

DetachedSignature::DetachedSignature(std::string_view bytes, std::string name)
    : name_(std::move(name)) {
    const auto shape = SignatureShape::of(bytes);
    message_ = decoded(shape.message);
    signer_ = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(message_.get()), 0);
    for (const auto der : shape.certificates) {
        certificates_.push_back(DecodedCertificates::shared().decode(der));
        if (!certificates_.back()) {
            throw invalid("The signature is no CMS message in DER.");
        }
    }
    const auto list = listOf(certificates_);
    if (CMS_set1_signers_certs(message_.get(), list.get(), 0) != 1) {
        ERR_clear_error();
        throw invalid("The signature does not carry the signing certificate.");
    }
    X509_ALGOR *algorithm = nullptr;
    CMS_SignerInfo_get0_algs(signer_, nullptr, &signingCertificate_, &algorithm, nullptr);
    digest_ = made(LibCrypto::BIOOwner(BIO_new(BIO_f_md())));
    if (BIO_set_md(digest_.get(), EVP_get_digestbyobj(algorithm->algorithm)) != 1) {
        throw invalid("The signature could not be checked: " + LibCrypto::reason());
    }
    BIO_push(digest_.get(), made(LibCrypto::BIOOwner(BIO_new(BIO_s_null()))).release());
}

void DetachedSignature::verifySigner(const AnchorStore &anchors) {
    verifyChain(anchors);
    requireSigningCertificate(signingCertificate_);
    if (CMS_SignerInfo_verify(signer_) != 1) {
        throw notValid(LibCrypto::reason());
    }
    if (!isOverData(signer_)) {
        ERR_clear_error();
        throw invalid("The signature is not one over data.");
    }
}

void DetachedSignature::verifyChain(const AnchorStore &anchors) const {
    const auto others = listOf(certificates_);
    const auto context = made(LibCrypto::StoreContextOwner(X509_STORE_CTX_new()));
    if (X509_STORE_CTX_init(context.get(), anchors.get(), signingCertificate_, others.get()) != 1) {
        throw invalid("The signature could not be checked: " + LibCrypto::reason());
    }
    if (X509_verify_cert(context.get()) != 1) {
        ERR_clear_error();
        throw notValid(X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get())));
    }
    const auto *chain = X509_STORE_CTX_get0_chain(context.get());
    for (int at = 1; at < sk_X509_num(chain); ++at) {
        if (!mayExtendToCode(sk_X509_value(chain, at))) {
            throw invalid(
                "An authority above the signing certificate is not one for signing code.");
        }
    }
}

PlatformError DetachedSignature::notValid(std::string_view reason) const {
    return invalid(fmt::format("The signature of “{}” is not valid: {}", name_, reason));
}

void DetachedSignature::add(std::string_view bytes) {
    const auto length = static_cast<int>(bytes.size());
    if (BIO_write(digest_.get(), bytes.data(), length) != length) {
        throw invalid("The signature could not be checked: " + LibCrypto::reason());
    }
}

void DetachedSignature::verifyContent() {
    if (CMS_SignerInfo_verify_content(signer_, digest_.get()) != 1) {
        throw notValid(LibCrypto::reason());
    }
}

std::string DetachedSignature::organisationalUnit() const {
    const auto *subject = X509_get_subject_name(signingCertificate_);
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

} // namespace klarbox
