#pragma once

#include "KlarboxKit/Platform/Linux/AnchorStore.hpp"
#include "KlarboxKit/Platform/Linux/LibCrypto.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// A detached CMS signature. It is verified in two steps, because the first costs a moment whatever
/// somebody put together, and the second as much as all signed bytes are long.
class DetachedSignature {
public:
    /// Decodes the signature of what is called `name` to people. Throws `PlatformError` when it is
    /// not of the shape that is verified.
    DetachedSignature(std::string_view bytes, std::string name);

    /// Verifies that the signer's certificates lead to an anchor and are for signing code, and that
    /// the signer signed what the signature says. Throws `PlatformError`.
    void verifySigner(const AnchorStore &anchors);

    /// Takes further bytes that are to be the signed ones.
    void add(std::string_view bytes);

    /// Verifies that the bytes added are the signed ones. Throws `PlatformError`. Means nothing
    /// before the signer is verified.
    void verifyContent();

    /// The organisational unit of the signer; empty unless there is exactly one.
    std::string organisationalUnit() const;

private:
    void verifyChain(const AnchorStore &anchors) const;
    PlatformError notValid(std::string_view reason) const;

    std::string name_;
    LibCrypto::CMSOwner message_;
    CMS_SignerInfo *signer_;
    std::vector<LibCrypto::CertificateOwner> certificates_;
    X509 *signingCertificate_;
    LibCrypto::BIOOwner digest_; ///< of the bytes added
};

} // namespace klarbox
