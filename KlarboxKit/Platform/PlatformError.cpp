#include "KlarboxKit/Platform/PlatformError.hpp"

#include <system_error>

namespace klarbox {

PlatformError PlatformError::posix(int code) {
    return {Domain::posix, code,
            "The operation couldn’t be completed. " + std::generic_category().message(code)};
}

PlatformError PlatformError::cocoa(int code, std::string message, int cause) {
    return {Domain::cocoa, code, std::move(message),
            cause == 0 ? nullptr : std::make_shared<const PlatformError>(posix(cause))};
}

} // namespace klarbox
