#include "KlarboxKit/Foundation/FileURL.hpp"

#include "KlarboxKit/Foundation/CurrentDirectory.hpp"

#include <vector>

namespace klarbox {

namespace {

/// Drops trailing slashes in place, keeping a lone "/"; true when there were any.
bool dropTrailingSlashes(std::string &path) {
    const auto last = path.find_last_not_of('/');
    const auto length = last == std::string::npos ? 1 : last + 1;
    if (path.size() == length) {
        return path == "/";
    }
    path.resize(length);
    return true;
}

} // namespace

FileURL::FileURL(std::string_view path, bool isDirectory)
    : path_(path.starts_with('/') ? std::string(path)
                                  : currentDirectory() + "/" + std::string(path)) {
    const bool hadSlash = dropTrailingSlashes(path_);
    isDirectory_ = isDirectory || hadSlash;
}

FileURL FileURL::standardized() const {
    std::vector<std::string_view> kept;
    std::string_view rest = path_;
    while (!rest.empty()) {
        const auto slash = rest.find('/');
        const auto piece = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
        if (piece.empty() || piece == ".") {
            continue;
        }
        if (piece != "..") {
            kept.push_back(piece);
        } else if (!kept.empty()) {
            kept.pop_back();
        }
    }
    std::string path;
    path.reserve(path_.size());
    for (const auto piece : kept) {
        path.append("/").append(piece);
    }
    return FileURL(path.empty() ? "/" : path, isDirectory_);
}

std::string_view FileURL::lastComponent() const {
    const std::string_view path = path_;
    return path == "/" ? path : path.substr(path.rfind('/') + 1);
}

std::string_view FileURL::extension() const {
    const auto name = lastComponent();
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view{} : name.substr(dot + 1);
}

std::string_view FileURL::stem() const {
    const auto name = lastComponent();
    return name.substr(0, name.rfind('.'));
}

FileURL FileURL::parent() const {
    const auto slash = path_.rfind('/');
    return FileURL(slash == 0 ? "/" : std::string_view(path_).substr(0, slash), true);
}

FileURL FileURL::appending(std::string_view relative, bool isDirectory) const {
    std::string path = path_ == "/" ? "" : path_;
    path.append("/").append(relative);
    return FileURL(path, isDirectory);
}

} // namespace klarbox
