#pragma once

#include "KlarboxKit/Commands/CommandAction.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"

#include <utility>
#include <variant>
#include <vector>

namespace klarbox {

/// What removing an item acts on. Read it with `std::visit(overloaded{…}, target.value())`.
class KlarboxTarget {
public:
    /// This file or folder itself.
    struct Item {
        FileURL url;
        bool operator==(const Item &) const = default;
    };
    /// Everything inside this folder; the folder stays.
    struct Contents {
        FileURL of;
        bool operator==(const Contents &) const = default;
    };
    /// Each of these files or folders.
    struct Items {
        std::vector<FileURL> urls;
        bool operator==(const Items &) const = default;
    };
    /// An outside tool's command; the tool frees the space itself.
    struct Command {
        CommandAction action;
        bool operator==(const Command &) const = default;
    };
    using Value = std::variant<Item, Contents, Items, Command>;

    static KlarboxTarget item(FileURL url) { return Value(Item{std::move(url)}); }
    static KlarboxTarget contents(FileURL of) { return Value(Contents{std::move(of)}); }
    static KlarboxTarget items(std::vector<FileURL> urls) { return Value(Items{std::move(urls)}); }
    static KlarboxTarget command(CommandAction action) { return Value(Command{std::move(action)}); }

    const Value &value() const { return value_; }

    /// The locations acted on, in order; none for a command.
    std::vector<FileURL> paths() const;

    bool operator==(const KlarboxTarget &) const = default;

private:
    KlarboxTarget(Value value) : value_(std::move(value)) {}
    Value value_;
};

} // namespace klarbox
