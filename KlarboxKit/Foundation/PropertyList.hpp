#pragma once

#include "KlarboxKit/Foundation/Date.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

namespace klarbox {

struct PropertyListDocument;

/// One value of a property list: the whole list, or a value inside it.
///
/// A value is an index into the flat, immutable document that it shares with every other value of
/// the same list, so copies are cheap, memory stays proportional to the file, and neither reading
/// nor freeing a list ever recurses. Texts are views that hold for as long as any value of the list
/// does. Safe from any thread.
class PropertyList {
public:
    enum class Kind : std::uint8_t {
        dictionary, ///< keys are texts
        array,      ///< sets are read as arrays in the order of the file
        string,
        integer,
        real,
        boolean,
        date,
        data,
        uid, ///< a keyed archiver's reference
        null
    };

    /// Longest input that `parse` takes, in bytes: far longer than any list that a program could
    /// still work with, short enough to hold in memory several times over.
    static constexpr std::size_t maximumSize = std::size_t{128} << 20;

    /// Reads a list in any of the formats: XML, binary, or the old text format with its
    /// strings-file form. Throws `PlatformError`: `propertyListReadCorrupt`, "not a property list:"
    /// with what is wrong and where, for bytes that are none; `fileReadTooLarge` or
    /// `featureUnsupported` for what may well be one but is beyond this reader (longer than
    /// `maximumSize`, millions of values, an unknown character encoding), so that callers who
    /// remove damaged files can tell the two apart. Time and memory are bounded by the input's
    /// length whatever it holds.
    static PropertyList parse(std::string_view bytes);

    Kind kind() const;

    /// Elements of an array, or keys of a dictionary; 0 for everything else.
    std::size_t count() const;

    /// The element of an array, or the value of a dictionary, in the order of the file. Throws
    /// `std::out_of_range` unless `index` is below `count()`.
    PropertyList at(std::size_t index) const;

    /// The key of the dictionary's value `at(index)`. Throws `std::out_of_range` unless this is a
    /// dictionary and `index` is below `count()`.
    std::string_view key(std::size_t index) const;

    /// The dictionary's value for exactly this key (the last one when the key is there twice);
    /// nothing without it, or when this is no dictionary. Looks at the keys one by one.
    std::optional<PropertyList> find(std::string_view key) const;

    /// The text, as UTF-8; nothing when this is none. The other readers are alike.
    std::optional<std::string_view> asString() const;
    /// The bytes.
    std::optional<std::string_view> asData() const;
    /// Also nothing for a number that does not fit.
    std::optional<std::int64_t> asInteger() const;
    /// The same.
    std::optional<double> asReal() const;
    std::optional<bool> asBoolean() const;
    /// Also nothing for a date that is no number.
    std::optional<Date> asDate() const;
    std::optional<std::uint64_t> asUID() const;

private:
    friend class PropertyListBuilder;

    PropertyList(std::shared_ptr<const PropertyListDocument> document, std::uint32_t index)
        : document_(std::move(document)),
          index_(index) {}

    std::shared_ptr<const PropertyListDocument> document_;
    std::uint32_t index_;
};

} // namespace klarbox
