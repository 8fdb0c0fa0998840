#include "KlarboxKit/Platform/MainBundle.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include <fcntl.h>

namespace klarbox {

namespace {

std::optional<std::string> readIdentifier() {
    const UniqueFD executable(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    if (!executable) {
        return std::nullopt;
    }
    try {
        const auto section = elfSection(executable, infoPlistSection);
        const auto value =
            section ? PropertyList::parse(*section).find("CFBundleIdentifier") : std::nullopt;
        const auto identifier = value ? value->asString() : std::nullopt;
        return identifier ? std::optional<std::string>(*identifier) : std::nullopt;
    } catch (const PlatformError &) {
        return std::nullopt; // a program without a readable list has no identifier, as one without
    }
}

} // namespace

std::optional<std::string> mainBundleIdentifier() {
    static const auto identifier = readIdentifier();
    return identifier;
}

} // namespace klarbox
