#include "KlarboxKit/Scanners/DockerScanner.hpp"

#include "KlarboxKit/Commands/SizeText.hpp"
#include "KlarboxKit/Foundation/JSON.hpp"
#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/SaturatingAdd.hpp"
#include "KlarboxKit/Foundation/Text.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <algorithm>
#include <chrono>

namespace klarbox {

namespace {

constexpr std::chrono::seconds timeLimit(30);

/// Docker counts in steps of 1000.
std::optional<std::int64_t> bytes(std::string_view text) {
    return SizeText::bytes(text, 1000);
}

/// Why Docker told nothing.
std::string failure(const CommandResult &report) {
    return report.exitCode == CommandResult::notStarted
               ? "Docker could not be asked: " + report.output
               : "Docker isn't running. Start it to include its images and build cache.";
}

/// "1.2GB (40%)" is 1.2GB.
std::int64_t reclaimableBytes(std::string_view text) {
    const auto begin = std::min(text.find_first_not_of(' '), text.size());
    return bytes(text.substr(begin, text.find(' ', begin) - begin)).value_or(0);
}

bool isOffered(std::int64_t size, const ScanContext &context) {
    return size >= 1 && context.isLargeEnough(size);
}

} // namespace

std::map<std::string, std::int64_t, std::less<>>
DockerScanner::parseSystemDF(std::string_view report) {
    std::map<std::string, std::int64_t, std::less<>> reclaimable;
    for (const auto line : Text::lines(report)) {
        try {
            const auto row = parseJSON(line);
            auto type = requiredString(row, "Type");
            const auto size = reclaimableBytes(requiredString(row, "Reclaimable"));
            reclaimable.insert_or_assign(std::move(type), size);
        } catch (const PlatformError &) {
            continue; // warnings come in between
        }
    }
    return reclaimable;
}

std::optional<FileURL> DockerScanner::docker(const ScanContext &context) {
    if (auto tool = context.environment.locateTool("docker")) {
        return tool;
    }
    for (const auto &candidate :
         {FileURL("/Applications/Docker.app/Contents/Resources/bin/docker"),
          context.homePath(".docker/bin/docker"), context.homePath(".orbstack/bin/docker")}) {
        if (FileManager::isExecutableFile(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

const CategoryInfo &DockerScanner::info() const {
    return CategoryCatalog::docker();
}

bool DockerScanner::isRelevant(const ScanContext &context) const {
    return docker(context).has_value();
}

CategoryScan DockerScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto tool = docker(context);
    if (!tool) {
        return scan;
    }
    const auto run = [&](std::vector<std::string> arguments) {
        return context.environment.runner->run({*tool, std::move(arguments)}, timeLimit, stop);
    };
    const auto report = run({"system", "df", "--format", "{{json .}}"});
    if (!report.succeeded()) {
        // A scan that is being stopped cut the tool short itself.
        if (!stop.stop_requested()) {
            scan.issues.push_back(ScanIssue::failed(failure(report)));
        }
        return scan;
    }
    const auto reclaimable = parseSystemDF(report.output);

    std::int64_t danglingImages = 0;
    const auto sizes = run({"images", "-f", "dangling=true", "--format", "{{.Size}}"});
    for (const auto line : Text::lines(sizes.output)) {
        danglingImages = saturatingAdd(danglingImages, bytes(line).value_or(0));
    }
    if (isOffered(danglingImages, context)) {
        scan.items.push_back({
            .id = info().id + ":images",
            .title = "Dangling images",
            .detail = "docker image prune -f",
            .target = KlarboxTarget::command({*tool, {"image", "prune", "-f"}}),
            .size = danglingImages,
            .isSizeEstimate = true,
            .tier = SafetyTier::safe,
            .note = "Untagged image layers no container uses. Tagged images are kept.",
        });
    }
    const auto buildCache = reclaimable.find("Build Cache");
    if (buildCache != reclaimable.end() && isOffered(buildCache->second, context)) {
        scan.items.push_back({
            .id = info().id + ":build-cache",
            .title = "Build cache",
            .detail = "docker builder prune -f",
            .target = KlarboxTarget::command({*tool, {"builder", "prune", "-f"}}),
            .size = buildCache->second,
            .isSizeEstimate = true,
            .tier = SafetyTier::safe,
            .note = "The next image build will take longer.",
        });
    }
    return scan;
}

} // namespace klarbox
