#include "KlarboxCLI/PrivilegedAccess.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/HelperClient.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <chrono>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Long enough for a big folder on a slow disk, short enough that a helper that hangs is noticed.
constexpr auto helperTimeLimit = std::chrono::minutes(2);

constexpr std::string_view onlyRoot =
    "Only root can remove files that belong to the system of another disk. Run klarbox with sudo.";

/// Stands where the helper would refuse everything without being able to say why.
class NoRemover final : public PrivilegedRemoving {
public:
    PrivilegedRemovalResult perform(const PrivilegedRequest &) const override {
        throw std::runtime_error(std::string(onlyRoot));
    }
};

} // namespace

PrivilegedAccess::PrivilegedAccess(const PrivilegedRoots &roots,
                                   std::shared_ptr<const SafetyGuard> guard) {
    const auto folders = roots.all();
    const auto helper = HelperClient::installedHelper();
    if (::geteuid() == 0) {
        way_ = Way::itself;
        remover_ = std::make_shared<PrivilegedRequestHandler>(
            std::vector(folders.begin(), folders.end()), std::move(guard),
            std::make_shared<SecureDeleter>());
    } else if (folders != PrivilegedRoots::ofThisMachine().all()) {
        way_ = Way::onlyRoot;
        remover_ = std::make_shared<NoRemover>();
    } else if (FileManager::exists(helper.socket)) {
        way_ = Way::helper;
        remover_ = std::make_shared<TimeLimitedPrivilegedRemover>(
            std::make_shared<HelperClient>(helper), helperTimeLimit);
    } else {
        way_ = Way::missingHelper;
    }
}

std::string PrivilegedAccess::remark(std::size_t count) const {
    const auto items = DisplayText::count(count, "item");
    switch (way_) {
    case Way::itself:
        return fmt::format("Of the system: {}.", items);
    case Way::helper:
        return fmt::format("Of the system, removed by the Klarbox helper: {}.", items);
    case Way::missingHelper:
        return fmt::format("Of the system, not removable without the Klarbox helper, which is not "
                           "installed: {}.",
                           items);
    case Way::onlyRoot:
        return fmt::format("Of the system: {}. {}", items, onlyRoot);
    }
    return "";
}

} // namespace klarbox
