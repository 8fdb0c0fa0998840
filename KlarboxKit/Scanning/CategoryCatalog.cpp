#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox::CategoryCatalog {

const std::array<CategoryInfo, 19> &all() {
    static const std::array<CategoryInfo, 19> categories{{
        {"user-caches", "App Caches",
         "Temporary files apps keep to load faster. Apps rebuild them as needed, "
         "so removing them is safe; the first launch afterwards can be a little "
         "slower.",
         "internaldrive", ScanSection::system},
        {"logs", "Logs & Crash Reports",
         "Records apps write about what they did and why they crashed. Only useful "
         "when you're troubleshooting a problem right now.",
         "doc.text.magnifyingglass", ScanSection::system},
        {"trash", "Trash",
         "Files you already moved to the Trash. Emptying it frees their space for "
         "good, and it can't be undone.",
         "trash", ScanSection::system},
        {"mail-downloads", "Mail Attachments",
         "Copies Mail saves when you open an attachment. The originals stay in "
         "your mailbox and download again if you open them.",
         "paperclip", ScanSection::system},
        {"installers", "Old Installers",
         "Disk images and installer packages in Downloads. Once an app is "
         "installed you rarely need its installer again.",
         "shippingbox", ScanSection::system},
        {"system-caches", "System Caches",
         "Caches that macOS services and apps keep for every user in "
         "/Library/Caches. They're rebuilt as needed. Removing them needs the "
         "Klarbox helper and is permanent, because system files can't go to your "
         "Trash.",
         "gearshape.2", ScanSection::system},
        {"system-logs", "System Logs",
         "Logs that macOS and system services write for every user. Old, rotated "
         "logs are safe to remove. Removing them needs the Klarbox helper and is "
         "permanent.",
         "list.bullet.rectangle", ScanSection::system},
        {"system-crash-reports", "System Crash Reports",
         "Reports macOS writes when an app or service crashes, hangs or uses too "
         "much memory. Only useful when you're troubleshooting right now. Removing "
         "them needs the Klarbox helper and is permanent.",
         "exclamationmark.triangle", ScanSection::system},
        {"xcode", "Xcode",
         "Build output, device support files and caches Xcode creates. Xcode "
         "rebuilds them; archives are the exception, since they hold the debug "
         "symbols for builds you shipped.",
         "swift", ScanSection::developer},
        {"simulators", "Unavailable Simulators",
         "Simulators for iOS versions that are no longer installed. They can't run "
         "anymore, so removing them only frees space.",
         "iphone.gen3", ScanSection::developer},
        {"simulator-dyld-caches", "Simulator System Caches",
         "Shared-library caches the Simulator builds for each runtime. Old builds "
         "pile up after Xcode and macOS updates. A simulator rebuilds its cache on "
         "the next start, which takes a few minutes. Removing them needs the "
         "Klarbox helper and is permanent.",
         "iphone.gen3", ScanSection::developer},
        {"package-caches", "Package Caches",
         "Copies of packages that npm, Yarn, pip, Gradle and other tools keep "
         "after downloading. They download again when needed, so the only cost is "
         "a slower next install.",
         "archivebox", ScanSection::developer},
        {"project-artifacts", "Project Build Files",
         "Build output and downloaded dependencies inside your code projects. Your "
         "source code is never touched; these come back the next time you build "
         "or install.",
         "hammer", ScanSection::developer},
        {"docker", "Docker",
         "Image layers no container uses and leftover build cache. Volumes are "
         "never touched, because they often hold databases.",
         "shippingbox.circle", ScanSection::developer},
        {"homebrew", "Homebrew",
         "Older versions of installed tools, downloaded bottles, and dependencies "
         "nothing needs anymore. Cleaned with Homebrew's own commands.",
         "mug", ScanSection::developer},
        {"ai-sessions", "AI Tool History",
         "Conversation logs that AI coding tools such as Claude Code and Codex "
         "keep. Older ones only matter if you want to resume or look back at those "
         "sessions.",
         "text.bubble", ScanSection::developer},
        {"orphaned-containers", "Data of Removed Apps",
         "Saved data and settings of App Store and sandboxed apps you've deleted. "
         "Only remove it if you won't reinstall the app, or you'll start fresh.",
         "app.dashed", ScanSection::leftovers},
        {"broken-preferences", "Broken Preferences",
         "Settings files that are damaged and can't be read. The app they belong "
         "to already falls back to its defaults, so they only add clutter.",
         "gearshape.2", ScanSection::leftovers},
        {"broken-launch-agents", "Broken Login Items",
         "Background helpers that start when you log in, but whose program has "
         "been deleted. They fail on every login and can be removed.",
         "power", ScanSection::leftovers},
    }};
    return categories;
}

std::vector<std::string> identifiers() {
    std::vector<std::string> identifiers;
    for (const auto &info : all()) {
        identifiers.push_back(info.id);
    }
    return identifiers;
}

const CategoryInfo &userCaches() {
    return all()[0];
}
const CategoryInfo &logs() {
    return all()[1];
}
const CategoryInfo &trash() {
    return all()[2];
}
const CategoryInfo &mailDownloads() {
    return all()[3];
}
const CategoryInfo &installers() {
    return all()[4];
}
const CategoryInfo &systemCaches() {
    return all()[5];
}
const CategoryInfo &systemLogs() {
    return all()[6];
}
const CategoryInfo &systemCrashReports() {
    return all()[7];
}
const CategoryInfo &xcode() {
    return all()[8];
}
const CategoryInfo &simulators() {
    return all()[9];
}
const CategoryInfo &simulatorDyldCaches() {
    return all()[10];
}
const CategoryInfo &packageCaches() {
    return all()[11];
}
const CategoryInfo &projectArtifacts() {
    return all()[12];
}
const CategoryInfo &docker() {
    return all()[13];
}
const CategoryInfo &homebrew() {
    return all()[14];
}
const CategoryInfo &aiSessions() {
    return all()[15];
}
const CategoryInfo &orphanedContainers() {
    return all()[16];
}
const CategoryInfo &brokenPreferences() {
    return all()[17];
}
const CategoryInfo &brokenLaunchAgents() {
    return all()[18];
}

} // namespace klarbox::CategoryCatalog
