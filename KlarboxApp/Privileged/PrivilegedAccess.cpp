#include "KlarboxApp/Privileged/PrivilegedAccess.hpp"

#include "KlarboxApp/Privileged/HelperClient.hpp"
#include "KlarboxKit/Cleaning/Cleaner.hpp"
#include "KlarboxKit/Helper/PrivilegedRequestHandler.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Safety/SecureDeleter.hpp"

#include <unistd.h>
#include <utility>
#include <vector>

namespace klarbox {

namespace {

/// A folder of millions of files is as much work as a tool's. That the helper is there at all is
/// known much sooner: connecting to it has a limit of its own.
constexpr auto requestTimeLimit = Cleaner::commandTimeout;

} // namespace

PrivilegedAccess::Way PrivilegedAccess::way(const PrivilegedRoots &roots) {
    if (::geteuid() == 0) {
        return Way::itself;
    }
    if (roots.all() != PrivilegedRoots::ofThisMachine().all()) {
        // What is written as lying on another disk may by links lie in a folder of this machine,
        // and that the helper would remove.
        return Way::onlyRoot;
    }
    return FileManager::exists(HelperClient::installedHelper().socket) ? Way::helper
                                                                       : Way::missingHelper;
}

PrivilegedAccess::PrivilegedAccess(const PrivilegedRoots &roots,
                                   std::shared_ptr<const SafetyGuard> guard,
                                   XPCConnection::Waiting waiting) {
    const auto folders = roots.all();
    switch (way(roots)) {
    case Way::itself:
        remover_ = std::make_shared<PrivilegedRequestHandler>(
            std::vector(folders.begin(), folders.end()), std::move(guard),
            std::make_shared<SecureDeleter>());
        break;
    case Way::helper:
        remover_ = std::make_shared<TimeLimitedPrivilegedRemover>(
            std::make_shared<HelperClient>(HelperClient::installedHelper(), std::move(waiting)),
            requestTimeLimit);
        break;
    case Way::missingHelper:
    case Way::onlyRoot:
        break;
    }
}

} // namespace klarbox
