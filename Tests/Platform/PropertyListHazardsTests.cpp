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

struct Hazard {
    std::string_view name;
    std::function<std::string()> bytes;
    std::string outcome; ///< regular expression
};

void expectWithinBounds(const std::vector<Hazard> &hazards) {
    for (const auto &hazard : hazards) {
        const auto bytes = hazard.bytes();
        EXPECT_EXIT(parseWithinBounds(bytes), testing::ExitedWithCode(0), hazard.outcome)
            << hazard.name;
    }
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
    expectWithinBounds({
        {"arrays", [] { return times(deep, "<array>") + times(deep, "</array>"); }, "1024 deep"},
        {"dictionaries", [] { return "<plist>" + times(deep, "<dict><key>a</key>"); }, "1024 deep"},
        {"unknown elements", [] { return times(deep, "<x>"); }, "unknown element"},
        {"content model",
         [] {
             return "<!DOCTYPE p [<!ELEMENT a " + times(deep, "(") + "a" + times(deep, ")") +
                    ">]><true/>";
         },
         "read, 0 inside"},
        {"billion laughs",
         [] {
             std::string entities = "<!ENTITY e0 'ha'>";
             for (int i = 1; i < 40; ++i) {
                 entities += fmt::format("<!ENTITY e{0} '&e{1};&e{1};'>", i, i - 1);
             }
             return "<!DOCTYPE p [" + entities + "]><string>&e39;</string>";
         },
         "declares entities"},
        {"one long entity",
         [] {
             return "<!DOCTYPE p [<!ENTITY e '" + times(deep, "ha") + "'>]><string>" +
                    times(deep, "&e;") + "</string>";
         },
         "declares entities"},
        {"parameter entities",
         [] {
             return "<!DOCTYPE p [<!ENTITY % a '<!ENTITY b \"x\">'>" + times(deep, "%a;") +
                    "]><true/>";
         },
         "declares entities"},
        {"attributes",
         [] {
             std::string element = "<dict";
             for (std::size_t i = 0; i < deep; ++i) {
                 element += fmt::format(" a{}=''", i);
             }
             return element + "/>";
         },
         "read, 0 inside"},
        {"default attributes",
         [] {
             std::string declared;
             for (std::size_t i = 0; i < deep; ++i) {
                 declared += fmt::format("<!ATTLIST true a{} CDATA 'x'>", i);
             }
             return "<!DOCTYPE p [" + declared + "]><array>" + times(deep, "<true/>");
         },
         "declares too many attributes"},
        {"values", [] { return "<array>" + times(8'400'000, "<true/>") + "</array>"; },
         "more than 8388608 values"},
        {"keys", [] { return "<dict>" + filled("<key/><true/>", large) + "</dict>"; }, "read"},
        {"text", [] { return "<string>" + filled("x") + "</string>"; }, "read"},
        {"cut off text", [] { return "<string>" + filled("x", huge); }, "not a property list"},
        {"characters", [] { return "<string>" + filled("&#65;") + "</string>"; }, "read"},
        {"digits", [] { return "<array><integer>" + filled("9") + "</integer></array>"; }, "read"},
        {"wide text", [] { return "\xFF\xFE" + wide("<string>", 2, false) + filled("\xAC\x20"); },
         "not a property list"},
        {"control characters", [] { return "<string>" + filled("\1"); }, "not a property list"},
        {"comment", [] { return "<!--" + filled("-x"); }, "not a property list"},
        {"tags", [] { return filled("<", huge); }, "not a property list"},
    });
}

TEST(PropertyListHazardsDeathTest, textIsReadWithinBounds) {
    expectWithinBounds({
        {"arrays", [] { return times(deep, "(") + times(deep, ")"); }, "1024 deep"},
        {"dictionaries", [] { return times(deep, "{a="); }, "1024 deep"},
        {"values", [] { return "(" + times(8'400'000, "a,") + ")"; }, "more than 8388608 values"},
        {"pairs", [] { return filled("a;", large / 2); }, "read"},
        {"letters", [] { return filled("a", huge); }, "read"},
        {"zeros", [] { return std::string(huge, '\0'); }, "a value expected"},
        {"noise", [] { return randomBytes(huge); }, "not a property list"},
        {"white space", [] { return filled(" \n"); }, "read, 0 inside"},
        {"comments", [] { return filled("/**//"); }, "read, 0 inside"},
        {"comment begins", [] { return filled("/* "); }, "a comment without an end"},
        {"quotes", [] { return filled("\"\""); }, "not a property list"},
        {"escapes", [] { return "\"" + filled("\\Ud800"); }, "without its closing quote"},
        {"data", [] { return "<" + filled("00 "); }, "not pairs of hexadecimal digits"},
    });
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
    expectWithinBounds({
        {"chain", [] { return binaryList(chain(deep), 4); }, "1024 deep"},
        {"chain as deep as can be", [] { return binaryList(chain(1024), 4); }, "read, 1 inside"},
        {"shared chains",
         [] {
             // A thousand levels are read first, then reached again a thousand levels down.
             auto objects = chain(1000, 1);
             objects.insert(objects.begin(), "\xA2" + bigEndian(1, 4) + bigEndian(1001, 4));
             for (std::size_t i = 1002; i < 2000; ++i) {
                 objects.push_back("\xA1" + bigEndian(i, 4));
             }
             objects.push_back("\xA1" + bigEndian(1, 4));
             return binaryList(objects, 4);
         },
         "1024 deep"},
        {"doubling arrays", [] { return doublingList(40, '\xA2', "\x09"); }, "shared without"},
        {"doubling sets", [] { return doublingList(100, '\xC2', "\x09"); }, "shared without"},
        {"doubling to a modest size", [] { return doublingList(20, '\xA2', "\x09"); }, "read, 2"},
        {"doubling in a circle", [] { return doublingList(40, '\xA2', "\xA1\0"s); }, "itself"},
        {"circle of dictionaries", [] { return doublingList(40, '\xD0', "\xA1\0"s); }, "itself"},
        {"one text many times",
         [] { return overlappingList("\x5F\x12" + bigEndian(deep, 4) + times(deep, "a"), deep); },
         "overlap"},
        {"one array many times",
         [] {
             return overlappingList("\xAF\x12" + bigEndian(deep, 4) + times(deep, "\0\0\0\1"s),
                                    deep);
         },
         "itself|overlap"},
        {"objects", [] { return overlappingList("\x09", 8'400'000); }, "more than 8388608 values"},
        {"offsets as wide as can be",
         [] {
             auto bytes = "bplist00\x09" + std::string(255 * (large / 255), '\xFF');
             return bytes + bigEndian(0, 6) + "\xFF\xFF" + bigEndian(large / 255, 8) +
                    bigEndian(0, 8) + bigEndian(9, 8);
         },
         "an object beyond the end"},
        {"noise", [] { return "bplist00" + randomBytes(huge); }, "not a property list"},
        {"wide text",
         [] { return binaryList({"\x6F\x12" + bigEndian(large / 2, 4) + filled("\x20\xAC")}); },
         "read"},
    });
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
