#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <cerrno>
#include <system_error>

namespace klarbox {

namespace {

PlatformError::CocoaCode changeCode(int cause) {
    switch (cause) {
    case EACCES:
    case EPERM:
        return PlatformError::fileWriteNoPermission;
    case ENOENT:
        return PlatformError::fileNoSuchFile;
    case EEXIST:
        return PlatformError::fileWriteFileExists;
    case ENOSPC:
    case EDQUOT:
        return PlatformError::fileWriteOutOfSpace;
    case EROFS:
        return PlatformError::fileWriteVolumeReadOnly;
    default:
        return PlatformError::fileWriteUnknown;
    }
}

} // namespace

PlatformError PlatformError::posix(int code) {
    return {Domain::posix, code,
            "The operation couldn’t be completed. " + std::generic_category().message(code)};
}

PlatformError PlatformError::cocoa(int code, std::string message, int cause) {
    return {Domain::cocoa, code, std::move(message),
            cause == 0 ? nullptr : std::make_shared<const PlatformError>(posix(cause))};
}

PlatformError PlatformError::fileChange(const std::string &sentence, int cause) {
    return cocoa(changeCode(cause), sentence + " " + std::generic_category().message(cause) + ".",
                 cause);
}

} // namespace klarbox
