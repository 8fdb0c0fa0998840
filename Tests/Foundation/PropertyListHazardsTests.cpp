#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"

#include "Tests/Foundation/PropertyListSamples.hpp"
#include "Tests/Support/Sanitizers.hpp"

#include <algorithm>
#include <cstdlib>
#include <sys/resource.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::string_literals;

constexpr std::size_t megabyte = std::size_t{1} << (isSanitized ? 17 : 20);
constexpr std::size_t large = 16 * megabyte;
constexpr std::size_t huge = 100 * megabyte;

/// Parses, says on standard error what came of it, and ends this process: with 0, 1 when it took
/// too much memory, or a signal when it took too long.
[[noreturn]] void parseWithinBounds(const std::string &bytes) {
    // Far more than any of this takes on a busy machine, far less than anything quadratic.
    constexpr rlimit mostSeconds{.rlim_cur = 30, .rlim_max = 30};
    ::setrlimit(RLIMIT_CPU, &mostSeconds);
    const auto peakKilobytes = [] {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<std::size_t>(usage.ru_maxrss);
    };
    const auto before = peakKilobytes();
    try {
        const auto list = PropertyList::parse(bytes);
        fmt::print(stderr, "read, {} inside\n", list.count());
    } catch (const PlatformError &error) {
        fmt::print(stderr, "{}\n", error.what());
    }
    const auto taken = peakKilobytes() - before;
    // Copies of the input, and the tables, whose limit this keeps as well.
    const auto most = 16 * 1024 + 5 * bytes.size() / 1024 +
                      std::min<std::size_t>(24 * bytes.size() / 1024, 320 * 1024);
    if (taken > most && !isSanitized) {
        fmt::print(stderr, "took {} KB for {} bytes\n", taken, bytes.size());
        std::_Exit(1);
    }
    std::_Exit(0);
}

void expectWithinBounds(std::string_view hazard, const std::string &bytes,
                        const std::string &outcome) {
    EXPECT_EXIT(parseWithinBounds(bytes), testing::ExitedWithCode(0), outcome) << hazard;
}

/// `unit` again and again, `size` bytes or a little less.
std::string filled(std::string_view unit, std::size_t size = large) {
    std::string bytes;
    bytes.reserve(size);
    while (bytes.size() + unit.size() <= size) {
        bytes += unit;
    }
    return bytes;
}

std::string times(std::size_t count, std::string_view unit) {
    return filled(unit, count * unit.size());
}

/// So many that comparing each with every other takes too long.
constexpr std::size_t many = 400'000;

/// The pattern again and again, each time with another number in it.
std::string numbered(std::string_view pattern) {
    std::string bytes;
    for (std::size_t number = 0; number < many; ++number) {
        bytes += fmt::format(fmt::runtime(pattern), number);
    }
    return bytes;
}

constexpr std::size_t deep = 200'000;

TEST(PropertyListHazardsDeathTest, XMLIsReadWithinBounds) {
    const auto expect = expectWithinBounds;
    expect("arrays", times(deep, "<array>") + times(deep, "</array>"), "1024 deep");
    expect("values", "<array>" + times(8'400'000, "<true/>"), "more than 8388608 values");
    expect("keys", "<dict>" + numbered("<key>key {}</key><true/>") + "</dict>", "read, 400000");
    expect("cut off text", "<string>" + filled("x", huge), "not a property list");
    expect("characters", "<string>" + filled("&#65;") + "</string>", "read");
    expect("comment", "<!--" + filled("-x"), "not a property list");
    expect("tags", filled("<", huge), "not a property list");

    expect("attributes", "<dict" + numbered(" a{}=''") + "/>", "read, 0 inside");
    expect("default attributes",
           "<!DOCTYPE p [" + numbered("<!ATTLIST true a{} CDATA 'x'>") + "]><array>",
           "declares too many attributes");
}

TEST(PropertyListHazardsDeathTest, textIsReadWithinBounds) {
    const auto expect = expectWithinBounds;
    expect("arrays", times(deep, "("), "1024 deep");
    expect("keys", "{" + numbered("\"key {}\" = (); ") + "}", "read, 400000");
    expect("comment begins", filled("/* "), "a comment without an end");
    expect("escapes", "\"" + filled("\\Ud800"), "without its closing quote");
    expect("data", "<" + filled("00 "), "not pairs of hexadecimal digits");
}

/// `count` arrays, each with the next one in both of its places.
std::string doublingList(unsigned count) {
    std::vector<std::string> objects;
    for (unsigned i = 1; i <= count; ++i) {
        objects.push_back(fmt::format("\xA2{0}{0}", static_cast<char>(i)));
    }
    objects.emplace_back("\x09");
    return binaryList(objects);
}

/// Arrays each of which holds the next one, the last one empty; the first `count` objects.
std::vector<std::string> chain(std::size_t count, std::size_t first = 0) {
    std::vector<std::string> objects;
    for (std::size_t i = 1; i < count; ++i) {
        objects.push_back("\xA1" + bigEndian(first + i, 4));
    }
    objects.emplace_back("\xA0");
    return objects;
}

/// `count` objects that all begin with the same bytes, in an array.
std::string overlappingList(std::string_view object, std::size_t count) {
    auto bytes = "bplist00" + std::string(object);
    std::vector<std::uint64_t> offsets(count, 8);
    offsets.front() = bytes.size();
    bytes += "\xAF\x12" + bigEndian(count - 1, 4);
    for (std::size_t i = 1; i < count; ++i) {
        bytes += bigEndian(i, 4);
    }
    return bytes + binaryEnd(bytes.size(), offsets, 4);
}

TEST(PropertyListHazardsDeathTest, binaryIsReadWithinBounds) {
    const auto expect = expectWithinBounds;
    expect("chain", binaryList(chain(deep), 4), "1024 deep");
    expect("chain as deep as can be", binaryList(chain(1024), 4), "read, 1 inside");
    // A thousand levels are read first, then reached again a thousand levels down.
    auto objects = chain(1000, 1);
    objects.insert(objects.begin(), "\xA2" + bigEndian(1, 4) + bigEndian(1001, 4));
    for (std::size_t i = 1002; i <= 2000; ++i) {
        objects.push_back("\xA1" + bigEndian(i < 2000 ? i : 1, 4));
    }
    expect("shared chains", binaryList(objects, 4), "1024 deep");
    expect("doubling arrays", doublingList(40), "shared without");
    expect("doubling to a modest size", doublingList(20), "read, 2");
    expect("one text many times",
           overlappingList("\x5F\x12" + bigEndian(deep, 4) + times(deep, "a"), deep), "overlap");
    expect("one array many times",
           overlappingList("\xAF\x12" + bigEndian(deep, 4) + times(deep, "\0\0\0\1"s), deep),
           "itself|overlap");
    std::vector<std::string> pairs{"\xDF\x12" + bigEndian(many, 4)};
    std::string references;
    for (std::size_t i = 1; i <= many; ++i) {
        pairs.push_back(fmt::format("\x56{:06}", i));
        references += bigEndian(i, 4);
    }
    pairs.front() += references + references; // every key is its own value
    expect("keys", binaryList(pairs, 4), "read, 400000");
    expect("objects", overlappingList("\x09", 8'400'000), "more than 8388608 values");
    expect("offsets as wide as can be",
           "bplist00\x09" + std::string(255 * (large / 255), '\xFF') + bigEndian(0, 6) +
               "\xFF\xFF" + bigEndian(large / 255, 8) + bigEndian(0, 8) + bigEndian(9, 8),
           "an object beyond the end");
    expect("wide text", binaryList({"\x6F\x12" + bigEndian(large / 2, 4) + filled("\x20\xAC")}),
           "read");
}

} // namespace
} // namespace klarbox::test
