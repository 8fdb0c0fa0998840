#include "KlarboxKit/Platform/PlatformError.hpp"
#include "KlarboxKit/Platform/PropertyList.hpp"

#include "Tests/Platform/PropertyListSamples.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <random>
#include <sys/resource.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::string_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true; // every byte costs ten times as much, memory several times
#else
constexpr bool isSanitized = false;
#endif

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

std::string randomBytes(std::size_t size) {
    std::mt19937_64 random(20261122);
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random()); });
    return bytes;
}

constexpr std::size_t deep = 200'000;

TEST(PropertyListHazardsDeathTest, XMLIsReadWithinBounds) {
    const auto expect = expectWithinBounds;
    expect("arrays", times(deep, "<array>") + times(deep, "</array>"), "1024 deep");
    expect("dictionaries", times(deep, "<dict><key>a</key>"), "1024 deep");
    expect("unknown elements", times(deep, "<x>"), "unknown element");
    expect("values", "<array>" + times(8'400'000, "<true/>"), "more than 8388608 values");
    expect("keys", "<dict>" + filled("<key/><true/>") + "</dict>", "read");
    expect("text", "<string>" + filled("x") + "</string>", "read");
    expect("cut off text", "<string>" + filled("x", huge), "not a property list");
    expect("characters", "<string>" + filled("&#65;") + "</string>", "read");
    expect("digits", "<integer>" + filled("9") + "</integer>", "read");
    expect("wide text", "\xFF\xFE" + wide("<true>", 2, false) + filled("\xAC\x20"), "not a prop");
    expect("control characters", "<string>" + filled("\1"), "not a property list");
    expect("comment", "<!--" + filled("-x"), "not a property list");
    expect("tags", filled("<", huge), "not a property list");

    std::string attributes;
    std::string declarations;
    for (std::size_t i = 0; i < deep; ++i) {
        attributes += fmt::format(" a{}=''", i);
        declarations += fmt::format("<!ATTLIST true a{} CDATA 'x'>", i);
    }
    const auto typed = [](std::string_view declared, std::string_view content) {
        return fmt::format("<!DOCTYPE p [{}]>{}", declared, content);
    };
    expect("attributes", "<dict" + attributes + "/>", "read, 0 inside");
    expect("default attributes", typed(declarations, "<array>" + times(deep, "<true/>")),
           "declares too many attributes");
    expect("content model",
           typed("<!ELEMENT a " + times(deep, "(") + "a" + times(deep, ")") + ">", "<true/>"),
           "read, 0 inside");
    std::string doubling = "<!ENTITY e0 'ha'>";
    for (int i = 1; i < 40; ++i) {
        doubling += fmt::format("<!ENTITY e{0} '&e{1};&e{1};'>", i, i - 1);
    }
    expect("doubling entities", typed(doubling, "<string>&e39;</string>"), "declares entities");
    expect("one long entity",
           typed("<!ENTITY e '" + times(deep, "ha") + "'>", "<string>" + times(deep, "&e;")),
           "declares entities");
    expect("parameter entities",
           typed("<!ENTITY % a '<!ENTITY b \"x\">'>" + times(deep, "%a;"), "<true/>"),
           "declares entities");
}

TEST(PropertyListHazardsDeathTest, textIsReadWithinBounds) {
    const auto expect = expectWithinBounds;
    expect("arrays", times(deep, "("), "1024 deep");
    expect("dictionaries", times(deep, "{a="), "1024 deep");
    expect("values", "(" + times(8'400'000, "a,") + ")", "more than 8388608 values");
    expect("pairs", filled("a;", large / 2), "read");
    expect("letters", filled("a", huge), "read");
    expect("zeros", std::string(huge, '\0'), "a value expected");
    expect("noise", randomBytes(huge), "not a property list");
    expect("white space", filled(" \n"), "read, 0 inside");
    expect("comments", filled("/**//"), "read, 0 inside");
    expect("comment begins", filled("/* "), "a comment without an end");
    expect("quotes", filled("\"\""), "not a property list");
    expect("escapes", "\"" + filled("\\Ud800"), "without its closing quote");
    expect("data", "<" + filled("00 "), "not pairs of hexadecimal digits");
}

/// `count` containers, each with the next one in every of its two places.
std::string doublingList(unsigned count, char marker, std::string_view last) {
    std::vector<std::string> objects;
    for (unsigned i = 1; i <= count; ++i) {
        const auto next = static_cast<char>(i);
        objects.push_back(marker == '\xD0'
                              ? fmt::format("\xD1{}{}", static_cast<char>(count + 1), next)
                              : fmt::format("{}{}{}", marker, next, next));
    }
    objects.emplace_back(last);
    objects.emplace_back("\x51k");
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
    expect("doubling arrays", doublingList(40, '\xA2', "\x09"), "shared without");
    expect("doubling sets", doublingList(100, '\xC2', "\x09"), "shared without");
    expect("doubling to a modest size", doublingList(20, '\xA2', "\x09"), "read, 2");
    expect("doubling in a circle", doublingList(40, '\xA2', "\xA1\0"s), "contains itself");
    expect("circle of dictionaries", doublingList(40, '\xD0', "\xA1\0"s), "contains itself");
    expect("one text many times",
           overlappingList("\x5F\x12" + bigEndian(deep, 4) + times(deep, "a"), deep), "overlap");
    expect("one array many times",
           overlappingList("\xAF\x12" + bigEndian(deep, 4) + times(deep, "\0\0\0\1"s), deep),
           "itself|overlap");
    expect("objects", overlappingList("\x09", 8'400'000), "more than 8388608 values");
    expect("offsets as wide as can be",
           "bplist00\x09" + std::string(255 * (large / 255), '\xFF') + bigEndian(0, 6) +
               "\xFF\xFF" + bigEndian(large / 255, 8) + bigEndian(0, 8) + bigEndian(9, 8),
           "an object beyond the end");
    expect("noise", "bplist00" + randomBytes(huge), "not a property list");
    expect("wide text", binaryList({"\x6F\x12" + bigEndian(large / 2, 4) + filled("\x20\xAC")}),
           "read");
}

double secondsToRead(const std::string &bytes) {
    const auto now = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    auto best = std::numeric_limits<double>::max();
    for (int i = 0; i < 5; ++i) {
        const auto begin = now();
        const auto list = PropertyList::parse(bytes);
        best = std::min(best, now() - begin);
    }
    return best;
}

TEST(PropertyListHazards, largeDictionariesTakeTimeByTheirLength) {
    const auto list = [](std::size_t count, std::string_view begin, std::string_view pair,
                         std::string_view end) {
        std::string bytes(begin);
        for (std::size_t i = 0; i < count; ++i) {
            bytes += fmt::format(fmt::runtime(pair), i);
        }
        return bytes + std::string(end);
    };
    const auto binary = [](std::size_t count) {
        std::vector<std::string> objects{"\xDF\x12" + bigEndian(count, 4)};
        for (std::size_t i = 0; i < 2 * count; ++i) {
            objects[0] += bigEndian(i % count + 1, 4); // every key is its own value
        }
        for (std::size_t i = 0; i < count; ++i) {
            objects.push_back(fmt::format("\x5B"
                                          "key {:7}",
                                          i));
        }
        return binaryList(objects, 4);
    };
    constexpr std::size_t few = 12'500;
    constexpr std::size_t many = 100'000;
    const struct {
        std::string_view format;
        std::function<std::string(std::size_t)> bytes;
    } cases[] = {
        {"XML",
         [&](std::size_t count) {
             return list(count, "<dict>", "<key>key {}</key><true/>", "</dict>");
         }},
        {"text", [&](std::size_t count) { return list(count, "{", "\"key {}\" = (); ", "}"); }},
        {"binary", binary},
    };
    for (const auto &[format, bytes] : cases) {
        ASSERT_EQ(PropertyList::parse(bytes(many)).count(), many) << format;
        // Eight times as much, and room for caches that no longer hold it all.
        EXPECT_LT(secondsToRead(bytes(many)), 8 * 4 * secondsToRead(bytes(few))) << format;
    }
}

} // namespace
} // namespace klarbox::test
