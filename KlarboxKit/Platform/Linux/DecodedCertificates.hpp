#pragma once

#include "KlarboxKit/Platform/Linux/LibCrypto.hpp"

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <string_view>

namespace klarbox {

/// Decodes certificates, and keeps the latest of them: libcrypto takes longer to decode one than to
/// verify a signature with it, and it is mostly the same few. What is kept is no verdict, only what
/// the very same bytes mean. Safe from any thread.
class DecodedCertificates {
public:
    /// The certificate with these bytes, which are all of its DER; null when they are none.
    LibCrypto::CertificateOwner decode(std::string_view bytes);

    /// The one that the process has.
    static DecodedCertificates &shared();

private:
    static constexpr std::size_t mostKept = 32;
    static constexpr std::size_t longestKept = 4096; ///< in bytes

    struct Kept {
        std::string bytes;
        LibCrypto::CertificateOwner certificate;
    };
    std::mutex mutex_;
    std::list<Kept> kept_; ///< the latest in front
};

} // namespace klarbox
