#include "KlarboxKit/Foundation/PropertyListBuilder.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <bit>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

constexpr std::size_t childrenPerEntry(PropertyList::Kind kind) {
    return kind == PropertyList::Kind::dictionary ? 2 : 1;
}

} // namespace

void PropertyListBuilder::fail(std::string_view problem) {
    throw PlatformError::cocoa(PlatformError::propertyListReadCorrupt,
                               fmt::format("not a property list: {}", problem));
}

void PropertyListBuilder::requireRoom(std::uint64_t values) {
    if (values > maximumValues) {
        throw PlatformError::cocoa(
            PlatformError::fileReadTooLarge,
            fmt::format("the property list holds more than {} values", maximumValues));
    }
}

PropertyListBuilder::Index PropertyListBuilder::add(Kind kind, std::size_t count,
                                                    std::uint64_t value) {
    requireRoom(document_.nodes.size() + 1);
    document_.nodes.push_back({kind, static_cast<std::uint32_t>(count), value});
    return static_cast<Index>(document_.nodes.size() - 1);
}

PropertyListBuilder::Index PropertyListBuilder::addBytes(Kind kind, std::string_view bytes) {
    const auto begin = document_.bytes.size();
    document_.bytes.append(bytes);
    return add(kind, bytes.size(), begin);
}

PropertyListBuilder::Index PropertyListBuilder::addString(std::string_view utf8) {
    return addBytes(Kind::string, utf8);
}

PropertyListBuilder::Index PropertyListBuilder::addData(std::string_view bytes) {
    return addBytes(Kind::data, bytes);
}

PropertyListBuilder::Index PropertyListBuilder::addInteger(std::optional<std::int64_t> value) {
    return add(Kind::integer, value ? 1 : 0, static_cast<std::uint64_t>(value.value_or(0)));
}

PropertyListBuilder::Index PropertyListBuilder::addReal(std::optional<double> value) {
    return add(Kind::real, value ? 1 : 0, std::bit_cast<std::uint64_t>(value.value_or(0)));
}

PropertyListBuilder::Index PropertyListBuilder::addBoolean(bool value) {
    return add(Kind::boolean, 0, value ? 1 : 0);
}

PropertyListBuilder::Index PropertyListBuilder::addDate(double seconds) {
    return add(Kind::date, 0, std::bit_cast<std::uint64_t>(seconds));
}

PropertyListBuilder::Index PropertyListBuilder::addUID(std::uint64_t value) {
    return add(Kind::uid, 0, value);
}

PropertyListBuilder::Index PropertyListBuilder::addNull() {
    return add(Kind::null, 0, 0);
}

PropertyListBuilder::Index PropertyListBuilder::addContainer(Kind kind, std::size_t childCount) {
    const auto begin = document_.children.size();
    requireRoom(begin + childCount);
    document_.children.resize(begin + childCount);
    return add(kind, childCount / childrenPerEntry(kind), begin);
}

void PropertyListBuilder::setChild(Index container, std::size_t position, Index child) {
    document_.children[document_.nodes[container].value + position] = child;
}

PropertyList PropertyListBuilder::finish(Index root) {
    return {std::make_shared<const PropertyListDocument>(std::exchange(document_, {})), root};
}

bool PropertyListNesting::expectsKey() const {
    return !open_.empty() && open_.back().kind == Kind::dictionary &&
           (pending_.size() - open_.back().firstChild) % 2 == 0;
}

void PropertyListNesting::open(Kind kind) {
    if (open_.size() == PropertyListBuilder::maximumDepth) {
        PropertyListBuilder::fail(
            fmt::format("nested more than {} deep", PropertyListBuilder::maximumDepth));
    }
    open_.push_back({kind, pending_.size()});
}

PropertyListNesting::Index PropertyListNesting::close() {
    const auto [kind, first] = open_.back();
    open_.pop_back();
    const auto count = pending_.size() - first;
    const auto container = builder_.addContainer(kind, count);
    for (std::size_t i = 0; i < count; ++i) {
        builder_.setChild(container, i, pending_[first + i]);
    }
    pending_.resize(first);
    return container;
}

} // namespace klarbox
