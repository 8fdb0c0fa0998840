#include "KlarboxKit/Platform/PlacesOnTheWay.hpp"

#include <filesystem>
#include <functional>
#include <iterator>
#include <numeric>
#include <system_error>

namespace klarbox {

namespace {

namespace fs = std::filesystem;

/// Where a component leads to from a folder of the disk mounted at `top`.
fs::path step(const fs::path &at, const fs::path &name, const fs::path &top) {
    if (name == "..") {
        return at == top ? at : at.parent_path();
    }
    return name == "." || name.empty() ? at : at / name;
}

} // namespace

std::vector<std::string> placesOnTheWay(const FileURL &file, const FileURL &disk) {
    constexpr int mostLinks = 40; // as many as the system follows
    const fs::path top = disk.path();
    std::vector<std::string> places;
    fs::path at = top;
    auto rest = fs::path(file.path()).relative_path();
    for (int links = 0; !rest.empty() && links <= mostLinks;) {
        const auto name = *rest.begin();
        rest = std::accumulate(std::next(rest.begin()), rest.end(), fs::path(),
                               std::divides<fs::path>());
        at = step(at, name, top);
        places.push_back(at.string());
        std::error_code error;
        if (const auto target = fs::read_symlink(at, error); !error) {
            ++links;
            at = target.is_absolute() ? top : at.parent_path();
            rest = target.relative_path() / rest;
        }
    }
    return places;
}

} // namespace klarbox
