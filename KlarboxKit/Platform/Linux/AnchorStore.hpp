#pragma once

#include "KlarboxKit/Platform/Code.hpp"
#include "KlarboxKit/Platform/Linux/LibCrypto.hpp"

#include <string>

namespace klarbox {

/// The anchors of a machine, ready to have chains of certificates verified against them.
class AnchorStore {
public:
    /// Most certificates that may stand between a signing certificate and its anchor.
    static constexpr int mostIntermediates = 3;

    /// Reads the anchors. Throws `PlatformError` naming what is wrong with them: one file that
    /// cannot be read, is none of certificates, or may be written to by others is enough.
    explicit AnchorStore(const CodeAnchors &anchors);

    /// Lives as long as this.
    X509_STORE *get() const { return store_.get(); }

private:
    void add(const UniqueFD &folder, const std::string &name, const CodeAnchors &anchors);

    LibCrypto::StoreOwner store_;
};

} // namespace klarbox
