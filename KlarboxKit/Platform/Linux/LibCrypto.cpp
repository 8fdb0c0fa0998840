#include "KlarboxKit/Platform/Linux/LibCrypto.hpp"

#include "KlarboxKit/Foundation/Text.hpp"

#include <openssl/err.h>

namespace klarbox {

void LibCrypto::prepare() {
    // No configuration file: what one may load has no place in a root daemon, nor in a program
    // whose environment the caller chose.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
    ERR_clear_error();
}

std::string LibCrypto::reason() {
    const auto code = ERR_peek_error();
    const char *text = code == 0 ? nullptr : ERR_reason_error_string(code);
    const std::string found = text == nullptr ? "no reason given" : text;
    ERR_clear_error();
    return Text::visible(found);
}

PlatformError LibCrypto::invalid(std::string message) {
    return {PlatformError::Domain::cocoa, PlatformError::fileReadUnknown, std::move(message)};
}

} // namespace klarbox
