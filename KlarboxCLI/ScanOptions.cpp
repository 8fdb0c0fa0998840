#include "KlarboxCLI/ScanOptions.hpp"

#include "KlarboxCLI/UsageError.hpp"
#include "KlarboxKit/Commands/SizeText.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <charconv>
#include <cstdint>
#include <system_error>

#include <fmt/format.h>

namespace klarbox {

namespace {

std::int64_t parseMinimumSize(const std::string &text) {
    std::int64_t plain = 0;
    const auto *end = text.data() + text.size();
    if (const auto [stop, error] = std::from_chars(text.data(), end, plain);
        error == std::errc() && stop == end && plain >= 0) {
        return plain;
    }
    const auto bytes = SizeText::bytes(text, 1000);
    if (!bytes || *bytes < 0) {
        throw UsageError(fmt::format("--minimum-size: '{}' is not a size such as 0, 500kB or 1MB",
                                     Text::visible(text)));
    }
    return *bytes;
}

} // namespace

ScanRequest ScanOptions::request() const {
    return {.home = home,
            .disk = disk,
            .settingsFile = settingsFile,
            .environmentFile = environmentFile,
            .minimumSize = parseMinimumSize(minimumSize),
            .categories = categories};
}

} // namespace klarbox
