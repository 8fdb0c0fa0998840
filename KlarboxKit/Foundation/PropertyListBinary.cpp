#include "KlarboxKit/Foundation/PropertyListBuilder.hpp"
#include "KlarboxKit/Foundation/PropertyListFormats.hpp"
#include "KlarboxKit/Foundation/UTF16.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <optional>
#include <string>

#include <fmt/format.h>

namespace klarbox::PropertyListFormats {

namespace {

using Index = PropertyListBuilder::Index;
using Kind = PropertyList::Kind;

/// A list whose containers share their contents again and again looks exponentially larger than
/// its file. It costs us nothing, but whoever walks it would never finish; no program makes one.
constexpr std::uint64_t maximumExpandedValues = std::uint64_t{16} << 20;

/// Objects of a sound list lie side by side, so that together they are shorter than the file.
/// Overlapping ones could say the same bytes over and over; room is left for the odd writer that
/// lets equal objects lie in one place.
constexpr std::uint64_t maximumOverlap = 2;

constexpr std::size_t trailerSize = 32;

class Reader {
public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}

    PropertyList read() {
        readTrailer();
        if (const auto node = enter(top_)) {
            return builder_.finish(*node);
        }
        while (true) {
            auto &frame = stack_.back();
            if (frame.next == frame.childCount) {
                const auto done = leave();
                if (stack_.empty()) {
                    return builder_.finish(done);
                }
                adopt(done);
                continue;
            }
            if (const auto child = enter(childReference(frame))) {
                adopt(*child);
            }
        }
    }

private:
    static constexpr Index unread = std::numeric_limits<Index>::max();
    static constexpr Index beingRead = unread - 1;

    struct Frame {
        std::uint64_t object;
        Index node;
        std::uint64_t references; ///< offset of the first
        std::uint64_t childCount; ///< two per pair of a dictionary
        std::uint64_t next;       ///< child to read next
        std::uint64_t expanded;   ///< values in it, itself included, shared ones counted each time
        std::size_t height;       ///< levels of containers, itself included
    };

    /// What a finished value means for a container that it is put into.
    struct Extent {
        std::uint64_t expanded = 1;
        std::size_t height = 0;
    };

    [[noreturn]] static void fail(std::string_view problem, std::uint64_t offset) {
        PropertyListBuilder::fail(fmt::format("{} (at byte {})", problem, offset));
    }

    /// The `size` bytes at `offset` as one number, most significant first. They must lie inside.
    std::uint64_t number(std::uint64_t offset, std::uint64_t size) const {
        std::uint64_t value = 0;
        for (const char byte : bytes_.substr(offset, size)) {
            if (value >> 56U != 0) {
                return std::numeric_limits<std::uint64_t>::max();
            }
            value = value << 8U | static_cast<unsigned char>(byte);
        }
        return value;
    }

    /// Whether `count` pieces of `size` bytes each lie inside the file from `offset` on.
    bool fits(std::uint64_t offset, std::uint64_t count, std::uint64_t size) const {
        return offset <= bytes_.size() && count <= (bytes_.size() - offset) / size;
    }

    void readTrailer() {
        if (bytes_.size() < trailerSize) {
            fail("cut off", bytes_.size());
        }
        const auto trailer = bytes_.size() - trailerSize;
        offsetSize_ = number(trailer + 6, 1);
        referenceSize_ = number(trailer + 7, 1);
        const auto objectCount = number(trailer + 8, 8);
        top_ = number(trailer + 16, 8);
        offsetTable_ = number(trailer + 24, 8);
        if (offsetSize_ == 0 || referenceSize_ == 0 ||
            !fits(offsetTable_, objectCount, offsetSize_) || top_ >= objectCount) {
            fail("a trailer that does not match the file", trailer);
        }
        PropertyListBuilder::requireRoom(objectCount);
        nodes_.assign(objectCount, unread);
    }

    /// Reads an object: its node when it is complete, nothing when it is a container that is now
    /// on the stack, its children still to come.
    std::optional<Index> enter(std::uint64_t object) {
        const auto node = nodes_[object];
        if (node == beingRead) {
            fail("an object that contains itself", number(offsetOf(object), offsetSize_));
        }
        if (node != unread) {
            return node;
        }
        const auto at = number(offsetOf(object), offsetSize_);
        if (at >= bytes_.size()) {
            fail("an object beyond the end", offsetOf(object));
        }
        const auto marker = static_cast<unsigned char>(bytes_[at]);
        const auto high = marker & 0xF0U;
        if (high == 0xA0 || high == 0xC0 || high == 0xD0) {
            open(object, at, high == 0xD0 ? Kind::dictionary : Kind::array);
            return std::nullopt;
        }
        return nodes_[object] = remember(simple(at, marker), {});
    }

    std::uint64_t offsetOf(std::uint64_t object) const {
        return offsetTable_ + object * offsetSize_;
    }

    void open(std::uint64_t object, std::uint64_t at, Kind kind) {
        if (stack_.size() == PropertyListBuilder::maximumDepth) {
            fail(fmt::format("nested more than {} deep", PropertyListBuilder::maximumDepth), at);
        }
        const auto [count, first] = length(at);
        const std::uint64_t perEntry = kind == Kind::dictionary ? 2 : 1;
        if (count > bytes_.size() || !fits(first, count * perEntry, referenceSize_)) {
            fail("a container that reaches beyond the end", at);
        }
        const auto children = count * perEntry;
        use(at, first + children * referenceSize_);
        nodes_[object] = beingRead;
        stack_.push_back({object, remember(builder_.addContainer(kind, children), {}), first,
                          children, 0, 1, 1});
    }

    /// The object that the next child of the container refers to.
    std::uint64_t childReference(const Frame &frame) const {
        const auto at = frame.references + frame.next * referenceSize_;
        const auto object = number(at, referenceSize_);
        if (object >= nodes_.size()) {
            fail("a reference to no object", at);
        }
        return object;
    }

    /// Makes a finished value the next child of the innermost container.
    void adopt(Index child) {
        auto &frame = stack_.back();
        auto position = frame.next;
        if (builder_.kind(frame.node) == Kind::dictionary) {
            // All keys come first in the file, then all values.
            const auto pairs = frame.childCount / 2;
            const bool isKey = frame.next < pairs;
            if (isKey && builder_.kind(child) != Kind::string) {
                fail("a key that is no text", frame.references + frame.next * referenceSize_);
            }
            position = isKey ? 2 * frame.next : 2 * (frame.next - pairs) + 1;
        }
        builder_.setChild(frame.node, position, child);
        ++frame.next;
        frame.expanded += extents_[child].expanded;
        frame.height = std::max(frame.height, extents_[child].height + 1);
        if (frame.expanded > maximumExpandedValues) {
            fail("containers shared without measure", frame.references);
        }
        // A shared container brings along levels that were counted where it was read first.
        if (stack_.size() + extents_[child].height > PropertyListBuilder::maximumDepth) {
            fail(fmt::format("nested more than {} deep", PropertyListBuilder::maximumDepth),
                 frame.references);
        }
    }

    Index leave() {
        const auto frame = stack_.back();
        stack_.pop_back();
        extents_[frame.node] = {frame.expanded, frame.height};
        return nodes_[frame.object] = frame.node;
    }

    Index remember(Index node, Extent extent) {
        extents_.resize(node + std::size_t{1});
        extents_[node] = extent;
        return node;
    }

    /// Counts the bytes from `begin` to `end` as those of one object.
    void use(std::uint64_t begin, std::uint64_t end) {
        used_ += end - begin;
        if (used_ > maximumOverlap * bytes_.size()) {
            fail("objects that overlap", begin);
        }
    }

    struct Length {
        std::uint64_t count;
        std::uint64_t first; ///< offset of what is counted
    };

    /// Reads how many elements, bytes or units the object at `at` has.
    Length length(std::uint64_t at) const {
        const auto low = static_cast<unsigned char>(bytes_[at]) & 0x0FU;
        if (low != 0x0F) {
            return {low, at + 1};
        }
        if (at + 1 >= bytes_.size() || (bytes_[at + 1] & 0xF0) != 0x10) {
            fail("a length that is no integer", at);
        }
        const auto size = std::uint64_t{1} << (static_cast<unsigned char>(bytes_[at + 1]) & 0x03U);
        if (!fits(at + 2, 1, size)) {
            fail("a length beyond the end", at);
        }
        return {number(at + 2, size), at + 2 + size};
    }

    /// The `count` times `size` bytes at `first` as the content of the object at `at`.
    std::string_view content(std::uint64_t at, Length length, std::uint64_t size) {
        if (!fits(length.first, length.count, size)) {
            fail("a value that reaches beyond the end", at);
        }
        use(at, length.first + length.count * size);
        return bytes_.substr(length.first, length.count * size);
    }

    double real(std::uint64_t at, std::uint64_t size) {
        const auto bytes = content(at, {1, at + 1}, size);
        const auto bits = number(at + 1, bytes.size());
        return size == 4 ? std::bit_cast<float>(static_cast<std::uint32_t>(bits))
                         : std::bit_cast<double>(bits);
    }

    /// Integers of 1, 2 and 4 bytes have no sign; 8 and 16 bytes have one.
    std::optional<std::int64_t> integer(std::uint64_t at, std::uint64_t size) {
        content(at, {1, at + 1}, size);
        const auto low = number(at + 1 + (size == 16 ? 8 : 0), std::min<std::uint64_t>(size, 8));
        const auto value = static_cast<std::int64_t>(low);
        if (size == 16) {
            const auto high = static_cast<std::int64_t>(number(at + 1, 8));
            return high == (value < 0 ? -1 : 0) ? std::optional(value) : std::nullopt;
        }
        return value;
    }

    Index simple(std::uint64_t at, unsigned marker) {
        const auto low = marker & 0x0FU;
        switch (marker & 0xF0U) {
        case 0x00:
            use(at, at + 1);
            switch (low) {
            case 0x0:
                return builder_.addNull();
            case 0x8:
            case 0x9:
                return builder_.addBoolean(low == 0x9);
            case 0xF: // filler, which readers take for empty data
                return builder_.addData({});
            default:
                break;
            }
            break;
        case 0x10:
            if (low <= 4) {
                return builder_.addInteger(integer(at, std::uint64_t{1} << low));
            }
            break;
        case 0x20:
            if (low == 2 || low == 3) {
                return builder_.addReal(real(at, std::uint64_t{1} << low));
            }
            break;
        case 0x30:
            if (low == 3) {
                return builder_.addDate(real(at, 8));
            }
            break;
        case 0x40:
            return builder_.addData(content(at, length(at), 1));
        case 0x50: {
            const auto text = content(at, length(at), 1);
            if (std::ranges::any_of(text, [](char c) { return (c & 0x80) != 0; })) {
                fail("an ASCII text with other characters", at);
            }
            return builder_.addString(text);
        }
        case 0x60:
            return builder_.addString(UTF16::decode(content(at, length(at), 2), true));
        case 0x80: {
            const auto size = std::uint64_t{low} + 1;
            const auto leading = size - std::min<std::uint64_t>(size, 8);
            content(at, {1, at + 1}, size);
            if (number(at + 1, leading) != 0) {
                fail("a reference beyond 64 bits", at);
            }
            return builder_.addUID(number(at + 1 + leading, size - leading));
        }
        default:
            break;
        }
        fail(fmt::format("an object of unknown kind 0x{:02x}", marker), at);
    }

    std::string_view bytes_;
    std::uint64_t offsetSize_ = 0;
    std::uint64_t referenceSize_ = 0;
    std::uint64_t top_ = 0;
    std::uint64_t offsetTable_ = 0;
    PropertyListBuilder builder_;
    std::vector<Index> nodes_;    ///< of each object, once it is read
    std::vector<Extent> extents_; ///< of each node
    std::vector<Frame> stack_;
    std::uint64_t used_ = 0;
};

} // namespace

PropertyList parseBinary(std::string_view bytes) {
    return Reader(bytes).read();
}

} // namespace klarbox::PropertyListFormats
