#include "KlarboxCLI/PrivilegedAccess.hpp"

#include "KlarboxCLI/DisplayText.hpp"
#include "KlarboxCLI/HelperClient.hpp"
#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace klarbox {

namespace {

/// A folder of millions of files is as much work as a tool's. That the helper is there at all is
/// known much sooner: connecting to it has a limit of its own.
constexpr auto requestTimeLimit = Cleaner::commandTimeout;

} // namespace

PrivilegedAccess::PrivilegedAccess(const PrivilegedRoots &roots,
                                   std::shared_ptr<const SafetyGuard> guard,
                                   XPCConnection::Waiting waiting) {
    const auto folders = roots.all();
    if (::geteuid() == 0) {
        way_ = Way::itself;
        remover_ = std::make_shared<PrivilegedRequestHandler>(
            std::vector(folders.begin(), folders.end()), std::move(guard),
            std::make_shared<SecureDeleter>());
        return;
    }
    if (folders != PrivilegedRoots::ofThisMachine().all()) {
        // What is written as lying on another disk may by links lie in a folder of this machine,
        // and that the helper would remove.
        way_ = Way::onlyRoot;
        return;
    }
    const auto helper = HelperClient::installedHelper();
    if (!FileManager::exists(helper.socket)) {
        way_ = Way::missingHelper;
        return;
    }
    way_ = Way::helper;
    remover_ = std::make_shared<TimeLimitedPrivilegedRemover>(
        std::make_shared<HelperClient>(helper, std::move(waiting)), requestTimeLimit);
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
