#pragma once

#include "KlarboxKit/Foundation/RawValue.hpp"

#include <string>
#include <string_view>

namespace klarbox {

/// The heading under which a category is listed.
enum class ScanSection { system, developer, leftovers };

template <>
struct RawValues<ScanSection> {
    static constexpr std::array table{
        RawCase{ScanSection::system, std::string_view("system")},
        RawCase{ScanSection::developer, std::string_view("developer")},
        RawCase{ScanSection::leftovers, std::string_view("leftovers")},
    };
};

/// What describes one category of findings.
struct CategoryInfo {
    std::string id;      ///< lower-case words joined by hyphens
    std::string title;   ///< shown name
    std::string summary; ///< one or two sentences
    std::string symbol;  ///< name of the symbol image shown for it
    ScanSection section;

    bool operator==(const CategoryInfo &) const = default;
};

} // namespace klarbox
