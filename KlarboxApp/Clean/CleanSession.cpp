#include "KlarboxApp/Clean/CleanSession.hpp"

#include "KlarboxApp/Privileged/PrivilegedAccess.hpp"
#include "KlarboxKit/Safety/FileSystemRemover.hpp"
#include "KlarboxKit/Safety/SafetyGuard.hpp"
#include "KlarboxKit/Scanning/Exclusions.hpp"

#include <memory>
#include <utility>

namespace klarbox {

namespace {

Cleaner cleanerFor(const ScanSession &scan, XPCConnection::Waiting waiting) {
    const auto &context = scan.context();
    const auto guard = std::make_shared<const SafetyGuard>(context.home, scan.enclosures());
    const PrivilegedAccess access(scan.roots(), guard, std::move(waiting));
    return {guard, std::make_shared<FileSystemRemover>(context.home), context.environment.runner,
            access.remover(), Exclusions(context.home, context.settings.excludedPaths)};
}

} // namespace

CleanSession::CleanSession(const ScanSession &scan, CleanPlan plan, XPCConnection::Waiting waiting)
    : plan_(std::move(plan)),
      cleaner_(cleanerFor(scan, std::move(waiting))) {}

} // namespace klarbox
