#include "KlarboxApp/Environment/ApplicationBundle.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"

#include <array>
#include <cerrno>
#include <string_view>

namespace klarbox {

namespace {

/// Those of the largest applications have some hundred kilobytes.
constexpr std::size_t largestList = 8 << 20;

/// Where a list may be: that of a Mac application, and of one made for a phone, which is wrapped.
constexpr std::array<std::string_view, 3> listPlaces{
    "Contents/Info.plist",
    "WrappedBundle/Info.plist",
    "Info.plist",
};

/// The bytes of a list; nothing when there is no such file.
std::optional<std::string> contents(const FileURL &file) {
    try {
        return FileManager::contents(file, largestList);
    } catch (const PlatformError &error) {
        const int reason = error.cause() != nullptr ? error.cause()->code() : 0;
        if (reason == ENOENT || reason == ENOTDIR) {
            return std::nullopt;
        }
        throw;
    }
}

std::optional<PropertyList> parse(std::string_view bytes) {
    try {
        return PropertyList::parse(bytes);
    } catch (const PlatformError &error) {
        if (error.code() == PlatformError::propertyListReadCorrupt) {
            return std::nullopt;
        }
        throw;
    }
}

std::string text(const PropertyList &list, std::string_view key) {
    const auto value = list.find(key);
    return std::string(value ? value->asString().value_or("") : "");
}

} // namespace

std::optional<ApplicationBundle> ApplicationBundle::read(const FileURL &folder) {
    for (const auto place : listPlaces) {
        const auto bytes = contents(folder.appending(place));
        if (!bytes) {
            continue;
        }
        const auto list = parse(*bytes);
        auto identifier = list ? text(*list, "CFBundleIdentifier") : "";
        if (identifier.empty()) {
            return std::nullopt;
        }
        for (const auto key : {"CFBundleDisplayName", "CFBundleName"}) {
            if (auto name = text(*list, key); !name.empty()) {
                return ApplicationBundle{std::move(identifier), std::move(name)};
            }
        }
        return ApplicationBundle{std::move(identifier), std::string(folder.stem())};
    }
    return std::nullopt;
}

} // namespace klarbox
