#pragma once

#include <exception>
#include <memory>
#include <string>

namespace klarbox {

/// A failure of the system underneath: a domain, a code in it, a sentence for people, and what
/// caused it when that was another failure.
class PlatformError : public std::exception {
public:
    enum class Domain {
        posix, ///< `code` is an errno value
        cocoa  ///< `code` is one of `CocoaCode`
    };

    /// The file-system codes of the Cocoa domain that this system reports.
    enum CocoaCode : int {
        fileNoSuchFile = 4,
        fileReadUnknown = 256,
        fileReadNoPermission = 257,
        fileReadNoSuchFile = 260,
        fileReadTooLarge = 263,
        propertyListReadCorrupt = 3840,
        coderReadCorrupt = 4864,
        fileWriteUnknown = 512,
        fileWriteNoPermission = 513,
        fileWriteFileExists = 516,
        fileWriteOutOfSpace = 640,
        fileWriteVolumeReadOnly = 642,
        featureUnsupported = 3328
    };

    PlatformError(Domain domain, int code, std::string message,
                  std::shared_ptr<const PlatformError> cause = nullptr)
        : domain_(domain),
          code_(code),
          message_(std::move(message)),
          cause_(std::move(cause)) {}

    /// The POSIX error with this errno value, described by the system's own words.
    static PlatformError posix(int code);

    /// A Cocoa error with this sentence, caused by the POSIX error `cause` (0: by nothing).
    static PlatformError cocoa(int code, std::string message, int cause = 0);

    /// The Cocoa error for a change to the file system that the POSIX error `cause` kept from
    /// happening. `sentence` says what did not happen; the reason is added to it.
    static PlatformError fileChange(const std::string &sentence, int cause);

    Domain domain() const { return domain_; }
    int code() const { return code_; }
    /// The failure underneath this one, or null.
    const PlatformError *cause() const { return cause_.get(); }
    /// One sentence for people.
    const std::string &message() const { return message_; }
    const char *what() const noexcept override { return message_.c_str(); }

private:
    Domain domain_;
    int code_;
    std::string message_;
    std::shared_ptr<const PlatformError> cause_;
};

} // namespace klarbox
