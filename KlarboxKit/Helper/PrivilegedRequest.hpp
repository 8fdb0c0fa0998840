#pragma once

#include <string>
#include <utility>
#include <variant>

namespace klarbox {

/// What the privileged helper is asked to do. Paths are bytes, exactly as received.
class PrivilegedRequest {
public:
    /// Remove the file, link or folder (with everything below it) at this absolute path.
    struct RemoveItem {
        std::string path;
        bool operator==(const RemoveItem &) const = default;
    };
    /// Remove every entry inside the folder at this absolute path; the folder stays.
    struct RemoveContents {
        std::string path;
        bool operator==(const RemoveContents &) const = default;
    };
    using Value = std::variant<RemoveItem, RemoveContents>;

    static PrivilegedRequest removeItem(std::string path) {
        return Value(RemoveItem{std::move(path)});
    }
    static PrivilegedRequest removeContents(std::string path) {
        return Value(RemoveContents{std::move(path)});
    }

    const Value &value() const { return value_; }
    bool operator==(const PrivilegedRequest &) const = default;

private:
    PrivilegedRequest(Value value) : value_(std::move(value)) {}
    Value value_;
};

} // namespace klarbox
