#pragma once

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

/// Owners of libcrypto's objects, and what every use of the library needs.
namespace klarbox::LibCrypto {

template <auto function>
struct Releaser {
    template <typename T>
    void operator()(T *object) const {
        function(object);
    }
};

/// Releases the list alone; the certificates in it are somebody else's.
inline void releaseList(STACK_OF(X509) * certificates) {
    sk_X509_free(certificates);
}

/// Owns a stream and those pushed behind it.
using BIOOwner = std::unique_ptr<BIO, Releaser<BIO_free_all>>;
using CMSOwner = std::unique_ptr<CMS_ContentInfo, Releaser<CMS_ContentInfo_free>>;
using CertificateOwner = std::unique_ptr<X509, Releaser<X509_free>>;
using CertificateListOwner = std::unique_ptr<STACK_OF(X509), Releaser<releaseList>>;
using StoreOwner = std::unique_ptr<X509_STORE, Releaser<X509_STORE_free>>;
using StoreContextOwner = std::unique_ptr<X509_STORE_CTX, Releaser<X509_STORE_CTX_free>>;

/// To be called before anything else of the library. Safe from any thread.
void prepare();

/// What went wrong first, fit to be shown; this thread's errors are forgotten.
std::string reason();

/// The failure of what was read not being what it should be.
PlatformError invalid(std::string message);

/// The object, unless the library could not make it (which it says by a null pointer): then throws
/// a `PlatformError`.
template <typename Owner>
Owner made(Owner object) {
    if (!object) {
        throw invalid("The signature could not be checked: " + reason());
    }
    return object;
}

} // namespace klarbox::LibCrypto
