#pragma once

#include "KlarboxKit/Foundation/PropertyList.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace klarbox {

/// A whole property list in three flat tables. Values refer to each other by index, and several
/// containers may refer to the same value.
struct PropertyListDocument {
    struct Node {
        PropertyList::Kind kind;
        /// Bytes of a text or of data; elements of an array; pairs of a dictionary; 1 for a
        /// number that fits its type.
        std::uint32_t count;
        /// Where in `bytes` or `children` it begins, or the bits of the value itself.
        std::uint64_t value;
    };
    std::vector<Node> nodes;
    std::vector<std::uint32_t> children; ///< a dictionary's are key, value, key, value, …
    std::string bytes;
};

/// What the readers of the formats build a list with. Keeps the limits that all formats share.
class PropertyListBuilder {
public:
    using Index = std::uint32_t;
    using Kind = PropertyList::Kind;

    /// Nesting that no program writes and no reader of ours needs; the system's own reader gives up
    /// earlier. A list nested deeper is damaged or hostile.
    static constexpr std::size_t maximumDepth = 1024;

    /// Values, and references to values, in one list. Together with the size limit this keeps the
    /// tables within a few hundred megabytes.
    static constexpr std::size_t maximumValues = std::size_t{8} << 20;

    /// Throws that the bytes are no property list, with what is wrong with them and where.
    [[noreturn]] static void fail(std::string_view problem);

    /// Throws that the list is too large when it has more than `maximumValues` values.
    static void requireRoom(std::uint64_t values);

    Index addString(std::string_view utf8);
    Index addData(std::string_view bytes);
    /// Nothing stands for an integer beyond 64 bits with a sign.
    Index addInteger(std::optional<std::int64_t> value);
    /// Nothing stands for a number beyond the type.
    Index addReal(std::optional<double> value);
    Index addBoolean(bool value);
    /// Seconds since the beginning of 2001, UTC.
    Index addDate(double seconds);
    Index addUID(std::uint64_t value);
    Index addNull();

    /// A container whose children (two per pair of a dictionary) are set one by one.
    Index addContainer(Kind kind, std::size_t childCount);
    void setChild(Index container, std::size_t position, Index child);

    Kind kind(Index index) const { return document_.nodes[index].kind; }

    /// The list whose top level is `root`. The builder is empty afterwards.
    PropertyList finish(Index root);

private:
    Index add(Kind kind, std::size_t count, std::uint64_t value);
    Index addBytes(Kind kind, std::string_view bytes);

    PropertyListDocument document_;
};

/// Containers that are being read from a text, innermost last. Children are collected aside until
/// their container ends, so that each container's stand side by side in the document.
class PropertyListNesting {
public:
    using Index = PropertyListBuilder::Index;
    using Kind = PropertyList::Kind;

    explicit PropertyListNesting(PropertyListBuilder &builder) : builder_(builder) {}

    bool isEmpty() const { return open_.empty(); }
    std::size_t depth() const { return open_.size(); }
    /// Kind of the innermost container; there must be one.
    Kind kind() const { return open_.back().kind; }
    /// Whether the innermost container is a dictionary whose next child is a key.
    bool expectsKey() const;

    /// Whether the innermost container, of which there must be one, has any children yet.
    bool hasChildren() const { return pending_.size() > open_.back().firstChild; }

    /// Throws when that is too deep.
    void open(Kind kind);
    /// Adds a value to the innermost container.
    void append(Index value) { pending_.push_back(value); }
    /// Ends the innermost container, a dictionary's keys each having their value. The caller
    /// decides where it goes.
    Index close();

private:
    struct Open {
        Kind kind;
        std::size_t firstChild; ///< in `pending_`
    };
    PropertyListBuilder &builder_;
    std::vector<Open> open_;
    std::vector<Index> pending_;
};

} // namespace klarbox
