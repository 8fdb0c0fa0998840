#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "Tests/Support/MemoryEnds.hpp"
#include "Tests/Support/Sanitizers.hpp"
#include "Tests/Support/ScanFixture.hpp"

#include <algorithm>
#include <ctime>
#include <functional>
#include <iterator>
#include <latch>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;

/// A scanner that is whatever a test wants it to be.
class ScriptedScanner final : public CategoryScanner {
public:
    using Scan = std::function<void(CategoryScan &, std::stop_token)>;

    explicit ScriptedScanner(std::string id, Scan scan, bool isRelevant = true)
        : info_{std::move(id), "", "", "", ScanSection::system},
          scan_(std::move(scan)),
          isRelevant_(isRelevant) {}

    const CategoryInfo &info() const override { return info_; }
    bool isRelevant(const ScanContext &) const override { return isRelevant_; }
    CategoryScan scan(const ScanContext &, std::stop_token stop) const override {
        CategoryScan scan{.info = info_};
        scan_(scan, std::move(stop));
        return scan;
    }

private:
    CategoryInfo info_;
    Scan scan_;
    bool isRelevant_;
};

/// A scanner that finds items with these targets, identified by their places in the list.
std::shared_ptr<const CategoryScanner> finds(const std::vector<KlarboxTarget> &targets) {
    return std::make_shared<ScriptedScanner>("x", [=](CategoryScan &scan, std::stop_token) {
        for (const auto &target : targets) {
            scan.items.push_back({.id = std::to_string(scan.items.size()),
                                  .title = "",
                                  .target = target,
                                  .tier = SafetyTier::safe});
        }
    });
}

const auto ignoreProgress = [](const ScanProgress &) {};
const FileURL home("/Users/ann");

KlarboxTarget at(const char *path) {
    return KlarboxTarget::item(home.appending(path));
}

KlarboxTarget at(std::initializer_list<const char *> paths) {
    std::vector<FileURL> urls;
    std::ranges::transform(paths, std::back_inserter(urls),
                           [](const char *path) { return home.appending(path); });
    return KlarboxTarget::items(urls);
}

/// The identifiers of all items that are left, "/" after each category.
std::string kept(const ScannerList &scanners, std::vector<std::string> excluded) {
    auto context = scanContext(home);
    context.settings.excludedPaths = std::move(excluded);
    std::string ids;
    for (const auto &scan : ScanCoordinator(scanners).scan(context, ignoreProgress)) {
        for (const auto &item : scan.items) {
            ids += item.id;
        }
        ids += "/";
    }
    return ids;
}

TEST(ScanCoordinator, reportsInOrderOfFinishingAndAnswersInOrderOfTheList) {
    // Each scanner waits for the one before it to be reported, so they finish 3, 1, 2.
    std::latch thirdReported(1);
    std::latch firstReported(1);
    const auto after = [](std::string id, std::latch *latch) {
        return std::make_shared<ScriptedScanner>(id, [=](CategoryScan &scan, std::stop_token) {
            if (latch == nullptr) {
                throw std::runtime_error(id); // its own fault, and nobody else's
            }
            latch->wait();
            scan.issues = {ScanIssue::failed(id)};
        });
    };
    const auto fail = [](CategoryScan &, std::stop_token) {
        FAIL() << "scanned though irrelevant";
    };
    const ScanCoordinator coordinator({after("first", &thirdReported),
                                       after("second", &firstReported), after("third", nullptr),
                                       std::make_shared<ScriptedScanner>("none", fail, false)});
    const auto caller = std::this_thread::get_id();
    std::string reports;
    const auto scans = coordinator.scan(scanContext(home), [&](const ScanProgress &progress) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        const auto finished = progress.finished ? progress.finished->id : "none";
        reports += fmt::format("{}/{} {};", progress.completed, progress.total, finished);
        if (finished == "third") {
            thirdReported.count_down();
        } else if (finished == "first") {
            firstReported.count_down();
        }
    });
    EXPECT_EQ(reports, "0/3 none;1/3 third;2/3 first;3/3 second;");
    ASSERT_EQ(scans.size(), 3U);
    for (std::size_t i = 0; i < scans.size(); ++i) {
        EXPECT_EQ(scans[i].id(), (std::vector{"first", "second", "third"}[i]));
        EXPECT_THAT(scans[i].issues, ElementsAre(ScanIssue::failed(scans[i].id())));
    }
}

TEST(ScanCoordinator, runsAllScannersAtOnceAndPassesAStopOnToThem) {
    constexpr std::size_t count = 8;
    std::latch allRunning(count);
    std::stop_source stop;
    const auto scanner =
        std::make_shared<ScriptedScanner>("x", [&](CategoryScan &scan, std::stop_token token) {
            allRunning.arrive_and_wait();
            stop.request_stop();
            while (!token.stop_requested()) {
                std::this_thread::yield();
            }
            scan.issues = {ScanIssue::failed("partial")};
        });
    const auto scans = ScanCoordinator(ScannerList(count, scanner))
                           .scan(scanContext(home), ignoreProgress, stop.get_token());
    ASSERT_EQ(scans.size(), count);
    for (const auto &scan : scans) {
        EXPECT_THAT(scan.issues, ElementsAre(ScanIssue::failed("partial")));
    }
}

TEST(ScanCoordinator, losesACategoryWhereMemoryEndsAndNoMore) {
    bool isOut = true;
    for (int allocations = 0; isOut; ++allocations) {
        const auto starved =
            std::make_shared<ScriptedScanner>("starved", [&](CategoryScan &scan, std::stop_token) {
                allocationsLeft = allocations; // of this thread, up to its end
                scan.issues.push_back(ScanIssue::failed(std::string(100, 'x')));
                isOut = allocationsLeft == 0;
                throw std::runtime_error(std::string(100, 'y'));
            });
        const auto scans =
            ScanCoordinator({starved, finds({at("a")})}).scan(scanContext(home), ignoreProgress);
        EXPECT_EQ(scans.at(0).info.id, "starved");
        EXPECT_EQ(scans.at(0).issues.size(), 1U);
        EXPECT_EQ(scans.at(1).items.size(), 1U);
    }
}

TEST(ScanCoordinator, dropsWhatThePersonExcluded) {
    const struct {
        const char *excluded;
        KlarboxTarget target;
        bool isDropped;
    } cases[] = {
        {"~/Library/Caches/x", at("Library/Caches/x"), true},
        {"~/Library/Caches/x", at("Library/Caches/x/data"), true},
        {"~/Library/Caches/x", at("Library/Caches"), true},
        {"~/Library/Caches/x", KlarboxTarget::contents(FileURL("/users/ANN/library/caches")), true},
        {"~/Library/Caches/x", at("Library/Caches/x2"), false},
        {"~/Library/Caches/x2", at("Library/Caches/x"), false},
        {"~//Library/./Caches/../Caches/", at("Library/Caches/x"), true},
        {"~/Library/Caches", at("Library//Logs/../Caches/x/"), true},
        // The same letter, written as one character and as two.
        {"~/Caf\u00e9", at("CAFE\u0301/x"), true},
        {"~", at("Library"), true},
        {"/", at("Library"), true},
        {"~other", at({"other", "ther"}), false},
        {"~/b", at({"a", "b/c", "d"}), true},
        {"~", at({}), false},
        {"/", KlarboxTarget::command({FileURL("/usr/bin/true"), {}}), false},
        {"~/Library/Caches/*", at("Library/Caches/x/data"), true},
        {"~/Library/Caches/*", at("Library/Caches"), false}, // nothing there matches
        {"~/Library/C?CH*S/x", at("Library/Caches/x"), true},
        {"~/Library/*/x", at("Library/Caches/deep/x"), false},
        {"~/**/node_modules", at("a/b/node_modules/c"), true},
        {"~/**/node_modules", at("node_modules"), true},
        {"~/a\\*", at("a*"), true},
        {"~/a\\*", at("ab"), false},
    };
    for (const auto &[excluded, target, isDropped] : cases) {
        EXPECT_EQ(kept({finds({target})}, {"/unrelated", excluded}), isDropped ? "/" : "0/")
            << excluded << " " << (target.paths().empty() ? "" : target.paths().front().path());
    }
}

TEST(ScanCoordinator, dropsWhatAnEarlierItemClaims) {
    EXPECT_EQ(
        kept({finds({at("c/x"), at("c/X"), at("c/x/y"), at("c/xx"), at("e/x/y")}),
              finds({at("c//x"), at("c"), at("c/other"), at({"p", "c/x/z"}), at("e"), at("e/x")}),
              // A dropped item claims nothing, an item's own paths do not claim each other.
              finds({at("p"), at({"n", "n/m"}), at({"q", "secret/q"}), at("q")})},
             {"~/secret"}),
        "034/14/013/");
}

TEST(ScanCoordinator, tidiesLongListsInTimeThatGrowsWithTheirLengthOnly) {
    auto context = scanContext(home);
    for (int i = 0; i < 10'000; ++i) {
        context.settings.excludedPaths.push_back(fmt::format("~/excluded-{}/node_modules", i));
    }
    std::vector<KlarboxTarget> targets;
    for (int i = 0; i < 100'000; ++i) {
        targets.push_back(at(fmt::format("project-{}/node_modules", i).c_str()));
    }
    const ScanCoordinator coordinator({finds(targets)});
    // Processor time, so that a busy machine does not count.
    const auto begin = std::clock();
    const auto scans = coordinator.scan(context, ignoreProgress);
    const auto seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    EXPECT_EQ(scans.at(0).items.size(), 100'000U);
    // Even of sanitizers' far from what comparing list with list would take.
    EXPECT_LT(seconds, isSanitized ? 20 : 1);
}

} // namespace
} // namespace klarbox::test
