#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// A detached CMS signature taken apart as far as nothing signed protects it: whoever writes the
/// file may put any number of anything there, and libcrypto would work through all of it.
struct SignatureShape {
    static constexpr std::size_t mostCertificates = 8;

    std::string message;                        ///< the signature without its certificates
    std::vector<std::string_view> certificates; ///< in DER; views of what was taken apart

    /// Takes apart a signature of exactly one shape: detached, one digest algorithm of the SHA-2
    /// family, no revocation lists, one signer with signed attributes and that same digest, at most
    /// `mostCertificates` certificates, and nothing else. Throws `PlatformError` for any other.
    /// Safe from any thread.
    static SignatureShape of(std::string_view bytes);
};

} // namespace klarbox
