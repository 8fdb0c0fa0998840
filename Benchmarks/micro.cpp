// The pieces of the engine that run once per item or request, measured one by one.

#include "KlarboxKit/Commands/SizeText.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Helper/PrivilegedRemovalResult.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"
#include "KlarboxKit/Scanning/ScanCoordinator.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace klarbox {
namespace {

/// A folder of its own with a file in it whose path has six components.
class DeepFile {
public:
    DeepFile() {
        auto pattern = (std::filesystem::temp_directory_path() / "klarbox-bench.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make " + pattern);
        }
        top_ = pattern;
        std::filesystem::create_directories(top_ / "Library/Caches/app");
        std::ofstream(path()) << "x";
    }
    ~DeepFile() { std::filesystem::remove_all(top_); }
    DeepFile(const DeepFile &) = delete;
    DeepFile &operator=(const DeepFile &) = delete;

    FileURL home() const { return FileURL(top_.native()); }
    FileURL root() const { return home().appending("Library/Caches"); }
    std::string path() const { return (top_ / "Library/Caches/app/file").native(); }

private:
    std::filesystem::path top_;
};

void validatesAPathSixDeep(benchmark::State &state) {
    const DeepFile file;
    const SafetyGuard guard(file.home());
    const FileURL url(file.path());
    const auto root = file.root();
    for (auto _ : state) {
        benchmark::DoNotOptimize(guard.validate(url, root));
    }
}
BENCHMARK(validatesAPathSixDeep);

/// Answers what it was given.
class ReadyScanner final : public CategoryScanner {
public:
    explicit ReadyScanner(std::vector<KlarboxItem> items) : items_(std::move(items)) {}
    const CategoryInfo &info() const override { return CategoryCatalog::packageCaches(); }
    CategoryScan scan(const ScanContext &, std::stop_token) const override {
        return {.info = info(), .items = items_};
    }

private:
    std::vector<KlarboxItem> items_;
};

void tidiesItems(benchmark::State &state) {
    ScanContext context{
        .home = FileURL("/Users/ann"), .settings = {}, .environment = {}, .minimumSize = 0};
    std::vector<KlarboxItem> items;
    for (std::int64_t index = 0; index < state.range(0); ++index) {
        const auto path = fmt::format("/Users/ann/.cache/{}/{}/entry", index % 100, index);
        items.push_back({.id = fmt::format("package-caches:{}", index),
                         .title = "entry",
                         .target = KlarboxTarget::item(FileURL(path)),
                         .tier = SafetyTier::safe});
    }
    for (std::int64_t index = 0; index < state.range(1); ++index) {
        context.settings.excludedPaths.push_back(
            fmt::format("~/.cache/{}/{}", index % 100, index * 7));
    }
    const ScanCoordinator coordinator({std::make_shared<ReadyScanner>(std::move(items))});
    for (auto _ : state) {
        const auto scans = coordinator.scan(context, [](const ScanProgress &) {});
        state.counters["left"] = static_cast<double>(scans.at(0).items.size());
    }
}
BENCHMARK(tidiesItems)
    ->ArgNames({"items", "excluded"})
    ->Args({100'000, 10'000})
    ->Unit(benchmark::kMillisecond);

void readsASizeText(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(SizeText::bytes("1.234GB", 1000));
    }
}
BENCHMARK(readsASizeText);

void readsPreferences(benchmark::State &state) {
    std::string list =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n";
    for (int index = 0; index < 200; ++index) {
        list += fmt::format("\t<key>Setting {0}</key><string>value {0}</string>\n"
                            "\t<key>Number {0}</key><integer>{0}</integer>\n",
                            index);
    }
    list += "</dict></plist>\n";
    for (auto _ : state) {
        benchmark::DoNotOptimize(PropertyList::parse(list));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(list.size()));
}
BENCHMARK(readsPreferences);

void answersInJSON(benchmark::State &state) {
    const PrivilegedRemovalResult result{.removedCount = 12,
                                         .failedCount = 1,
                                         .bytes = 3'456'789,
                                         .error = "“old.log” couldn’t be removed."};
    for (auto _ : state) {
        benchmark::DoNotOptimize(PrivilegedRemovalResult::decode(result.encoded()));
    }
}
BENCHMARK(answersInJSON);

} // namespace
} // namespace klarbox

BENCHMARK_MAIN();
