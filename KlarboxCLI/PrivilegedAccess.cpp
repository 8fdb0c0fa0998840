#include "KlarboxCLI/PrivilegedAccess.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/HelperClient.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <chrono>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// Long enough for a big folder, short enough that a helper that hangs is noticed.
constexpr auto helperTimeLimit = std::chrono::seconds(30);

} // namespace

PrivilegedAccess::PrivilegedAccess(const PrivilegedRoots &roots,
                                   std::shared_ptr<const SafetyGuard> guard) {
    const auto folders = roots.all();
    if (::geteuid() == 0) {
        way_ = Way::itself;
        remover_ = std::make_shared<PrivilegedRequestHandler>(
            std::vector(folders.begin(), folders.end()), std::move(guard),
            std::make_shared<SecureDeleter>());
        return;
    }
    const auto helper = HelperClient::installedHelper();
    const bool isInstalled = FileManager::exists(helper.socket);
    if (isInstalled) {
        remover_ = std::make_shared<TimeLimitedPrivilegedRemover>(
            std::make_shared<HelperClient>(helper), helperTimeLimit);
    }
    if (folders != PrivilegedRoots::ofThisMachine().all()) {
        way_ = Way::onlyRoot; // the helper will refuse: it knows no disk but its own
    } else {
        way_ = isInstalled ? Way::helper : Way::missingHelper;
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
        return fmt::format("Of the system of another disk, which only root can remove: {}. Run "
                           "klarbox with sudo for those.",
                           items);
    }
    return "";
}

} // namespace klarbox
