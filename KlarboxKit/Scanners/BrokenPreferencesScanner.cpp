#include "KlarboxKit/Scanners/BrokenPreferencesScanner.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/PropertyList.hpp"
#include "KlarboxKit/Safety/DiskUsage.hpp"
#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

namespace {

bool isBroken(const FileURL &file) {
    try {
        const auto bytes = FileManager::contents(file, PropertyList::maximumSize);
        return PropertyList::parse(bytes).kind() != PropertyList::Kind::dictionary;
    } catch (const PlatformError &error) {
        // Every other failure leaves open what the file holds.
        return error.code() == PlatformError::propertyListReadCorrupt;
    }
}

} // namespace

const CategoryInfo &BrokenPreferencesScanner::info() const {
    return CategoryCatalog::brokenPreferences();
}

CategoryScan BrokenPreferencesScanner::scan(const ScanContext &context,
                                            std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto preferences = context.homePath("Library/Preferences");
    for (const auto &folder : {preferences, preferences.appending("ByHost")}) {
        for (const auto &entry : ScannerSupport::childrenOrNone(folder)) {
            if (entry.extension() != "plist") {
                continue;
            }
            if (stop.stop_requested()) {
                return scan;
            }
            if (FileManager::type(entry) != FileManager::FileType::regular || !isBroken(entry)) {
                continue;
            }
            scan.items.push_back({
                .id = info().id + ":" + entry.path(),
                .title = std::string(entry.lastComponent()),
                .detail = FS::tildePath(entry, context.home),
                .target = KlarboxTarget::item(entry),
                .allowedRoot = preferences,
                .size = DiskUsage::allocatedSize(entry, [&] { return stop.stop_requested(); }),
                .tier = SafetyTier::leftover,
                .note = "Damaged, so the app uses its default settings instead.",
            });
        }
    }
    return scan;
}

} // namespace klarbox
