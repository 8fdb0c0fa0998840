#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include "Tests/Support/ScanFixture.hpp"

#include <atomic>
#include <ctime>
#include <functional>
#include <latch>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A scanner that is whatever a test wants it to be.
class ScriptedScanner final : public CategoryScanner {
public:
    using Scan = std::function<CategoryScan(const CategoryInfo &, std::stop_token)>;

    explicit ScriptedScanner(std::string id, Scan scan, bool isRelevant = true)
        : info_{std::move(id), "", "", "", ScanSection::system},
          scan_(std::move(scan)),
          isRelevant_(isRelevant) {}

    const CategoryInfo &info() const override { return info_; }
    bool isRelevant(const ScanContext &) const override { return isRelevant_; }
    CategoryScan scan(const ScanContext &, std::stop_token stop) const override {
        return scan_(info_, std::move(stop));
    }

private:
    CategoryInfo info_;
    Scan scan_;
    bool isRelevant_;
};

KlarboxItem item(std::string id, KlarboxTarget target) {
    return {
        .id = std::move(id), .title = "", .target = std::move(target), .tier = SafetyTier::safe};
}

/// A scanner that finds these items.
std::shared_ptr<const CategoryScanner> finds(std::string id, std::vector<KlarboxItem> items) {
    return std::make_shared<ScriptedScanner>(
        std::move(id), [items = std::move(items)](const CategoryInfo &info, std::stop_token) {
            return CategoryScan{.info = info, .items = items};
        });
}

const auto ignoreProgress = [](const ScanProgress &) {};

/// The identifiers of all items that are left, category by category.
std::vector<std::vector<std::string>> kept(const ScannerList &scanners,
                                           const ScanContext &context) {
    std::vector<std::vector<std::string>> ids;
    for (const auto &scan : ScanCoordinator(scanners).scan(context, ignoreProgress)) {
        ids.emplace_back();
        for (const auto &each : scan.items) {
            ids.back().push_back(each.id);
        }
    }
    return ids;
}

TEST(ScanCoordinator, reportsInOrderOfFinishingAndAnswersInOrderOfTheList) {
    std::vector<std::string> reports;
    // Each scanner waits for the one before it to be reported, so they finish 3, 1, 2.
    std::latch thirdReported(1);
    std::latch firstReported(1);
    const auto after = [](std::string id, std::latch *latch) {
        return std::make_shared<ScriptedScanner>(
            std::move(id), [latch](const CategoryInfo &info, std::stop_token) {
                if (latch != nullptr) {
                    latch->wait();
                }
                return CategoryScan{.info = info, .issues = {ScanIssue::failed(info.id)}};
            });
    };
    const ScanCoordinator coordinator({after("first", &thirdReported),
                                       after("second", &firstReported), after("third", nullptr),
                                       std::make_shared<ScriptedScanner>(
                                           "irrelevant",
                                           [](const CategoryInfo &info, std::stop_token) {
                                               ADD_FAILURE() << "scanned though irrelevant";
                                               return CategoryScan{.info = info};
                                           },
                                           false)});
    const auto caller = std::this_thread::get_id();
    const auto scans =
        coordinator.scan(scanContext(FileURL("/Users/ann")), [&](const ScanProgress &progress) {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            const auto finished = progress.finished ? progress.finished->id : "none";
            reports.push_back(
                fmt::format("{} of {}, {}", progress.completed, progress.total, finished));
            if (finished == "third") {
                thirdReported.count_down();
            } else if (finished == "first") {
                firstReported.count_down();
            }
        });
    EXPECT_THAT(reports,
                ElementsAre("0 of 3, none", "1 of 3, third", "2 of 3, first", "3 of 3, second"));
    ASSERT_EQ(scans.size(), 3U);
    for (std::size_t i = 0; i < scans.size(); ++i) {
        EXPECT_EQ(scans[i].id(), (std::vector{"first", "second", "third"}[i]));
        EXPECT_THAT(scans[i].items, IsEmpty());
        EXPECT_THAT(scans[i].issues, ElementsAre(ScanIssue::failed(scans[i].id())));
    }
}

TEST(ScanCoordinator, reportsOnceWhenNothingIsRelevant) {
    std::vector<ScanProgress> reports;
    const auto scans =
        ScanCoordinator({}).scan(scanContext(FileURL("/Users/ann")),
                                 [&](const ScanProgress &report) { reports.push_back(report); });
    EXPECT_THAT(scans, IsEmpty());
    EXPECT_THAT(reports, ElementsAre(ScanProgress{.completed = 0, .total = 0}));
}

TEST(ScanCoordinator, runsAllScannersAtOnceAndPassesAStopOnToThem) {
    constexpr int count = 8;
    std::latch allRunning(count);
    std::stop_source stop;
    ScannerList scanners;
    for (int i = 0; i < count; ++i) {
        scanners.push_back(std::make_shared<ScriptedScanner>(
            fmt::format("{}", i), [&](const CategoryInfo &info, std::stop_token token) {
                allRunning.arrive_and_wait();
                stop.request_stop();
                while (!token.stop_requested()) {
                    std::this_thread::yield();
                }
                return CategoryScan{.info = info, .issues = {ScanIssue::failed("partial")}};
            }));
    }
    const auto scans = ScanCoordinator(scanners).scan(scanContext(FileURL("/Users/ann")),
                                                      ignoreProgress, stop.get_token());
    ASSERT_EQ(scans.size(), static_cast<std::size_t>(count));
    for (const auto &scan : scans) {
        EXPECT_THAT(scan.issues, ElementsAre(ScanIssue::failed("partial")));
    }
}

TEST(ScanCoordinator, dropsWhatThePersonExcluded) {
    const FileURL home("/Users/ann");
    const auto touching = [&](const char *excluded, const KlarboxTarget &target) {
        auto context = scanContext(home);
        context.settings.excludedPaths = {"/unrelated", excluded};
        return kept({finds("a", {item("x", target)})}, context).at(0).empty();
    };
    const auto at = [&](const char *path) { return KlarboxTarget::item(home.appending(path)); };
    const struct {
        const char *excluded;
        KlarboxTarget target;
        bool isDropped;
    } cases[] = {
        {"~/Library/Caches/com.example", at("Library/Caches/com.example"), true},
        {"~/Library/Caches/com.example", at("Library/Caches/com.example/data"), true},
        {"~/Library/Caches/com.example", at("Library/Caches"), true},
        {"~/Library/Caches/com.example",
         KlarboxTarget::contents(FileURL("/users/ANN/library/caches")), true},
        {"~/Library/Caches/com.example", at("Library/Caches/com.example2"), false},
        {"~/Library/Caches/com.example2", at("Library/Caches/com.example"), false},
        {"~//Library/./Caches/../Caches/", at("Library/Caches/x"), true},
        {"~/Library/Caches", at("Library//Logs/../Caches/x/"), true},
        // The same letter, written as one character and as two.
        {"~/Caf\u00e9", at("CAFE\u0301/x"), true},
        // Capitals whose lower case is composed otherwise than they are.
        {"~/J\u030c", at("\u01f0/x"), true},
        {"~/\u0130", at("i\u0307"), true},
        {"~/\u0130", at("i"), false},
        {"~/\xff", at("\xfe"), false},
        {"~", at("Library"), true},
        {"/", at("Library"), true},
        {"~other", at("other"), false},
        {"~/b",
         KlarboxTarget::items({home.appending("a"), home.appending("b/c"), home.appending("d")}),
         true},
        {"~", KlarboxTarget::items({}), false},
        {"/", KlarboxTarget::command({.executable = FileURL("/usr/bin/true"), .arguments = {}}),
         false},
    };
    for (const auto &[excluded, target, isDropped] : cases) {
        EXPECT_EQ(touching(excluded, target), isDropped)
            << excluded << " " << (target.paths().empty() ? "" : target.paths().front().path());
    }
}

TEST(ScanCoordinator, dropsWhatAnEarlierItemClaims) {
    const FileURL home("/Users/ann");
    const auto at = [&](const char *path) { return KlarboxTarget::item(home.appending(path)); };
    auto context = scanContext(home);
    context.settings.excludedPaths = {"~/secret"};
    EXPECT_THAT(
        kept({finds("a", {item("cache", at("c/x")), item("same", at("c/X")),
                          item("inside", at("c/x/y")), item("sibling", at("c/xx"))}),
              finds("b", {item("again", at("c//x")), item("parent", at("c")),
                          item("afterParent", at("c/other")),
                          item("list", KlarboxTarget::items(
                                           {home.appending("p"), home.appending("c/x/z")}))}),
              // A dropped item claims nothing, an item's own paths do not claim each other.
              finds("c", {item("fromDropped", at("p")),
                          item("nested",
                               KlarboxTarget::items({home.appending("n"), home.appending("n/m")})),
                          item("excluded", KlarboxTarget::items(
                                               {home.appending("q"), home.appending("secret/q")})),
                          item("fromExcluded", at("q"))})},
             context),
        ElementsAre(ElementsAre("cache", "sibling"), ElementsAre("parent"),
                    ElementsAre("fromDropped", "nested", "fromExcluded")));
}

TEST(ScanCoordinator, tidiesLongListsInTimeThatGrowsWithTheirLengthOnly) {
    auto context = scanContext(FileURL("/Users/ann"));
    for (int i = 0; i < 10'000; ++i) {
        context.settings.excludedPaths.push_back(
            fmt::format("~/Projects/excluded-{}/node_modules", i));
    }
    std::vector<KlarboxItem> items;
    for (int i = 0; i < 100'000; ++i) {
        items.push_back(item("x", KlarboxTarget::item(context.homePath(
                                      fmt::format("Projects/project-{}/node_modules", i)))));
    }
    const ScanCoordinator coordinator({finds("a", std::move(items))});
    // Processor time, so that a busy machine does not count.
    const auto begin = std::clock();
    const auto scans = coordinator.scan(context, ignoreProgress);
    const auto seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    EXPECT_EQ(scans.at(0).items.size(), 100'000U);
    RecordProperty("seconds", fmt::format("{:.3f}", seconds));
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr double limit = 20; // still far from what comparing list with list would take
#else
    constexpr double limit = 1;
#endif
    EXPECT_LT(seconds, limit);
}

} // namespace
} // namespace klarbox::test
