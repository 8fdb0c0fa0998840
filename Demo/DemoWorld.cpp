#include "Demo/DemoWorld.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace klarbox::demo {

namespace fs = std::filesystem;
using namespace test;

namespace {

constexpr std::size_t kB = 1000;
constexpr std::size_t MB = 1000 * kB;

Entry::Text plist(std::string_view entries) {
    return {fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                        "<plist version=\"1.0\"><dict>{}</dict></plist>\n",
                        entries)};
}

Entry::Text launchAgent(std::string_view program) {
    return plist(
        fmt::format("<key>ProgramArguments</key><array><string>{}</string></array>", program));
}

Entry::Text containerMetadata(std::string_view identifier) {
    return plist(fmt::format("<key>MCMMetadataIdentifier</key><string>{}</string>", identifier));
}

/// One file, or many alike.
struct Row {
    std::string
        path; ///< below the world's folder, "~" for the home; counts many as {0}, {0} % 32 as {1}
    decltype(Entry::what) what;
    int age = 3; ///< whole days from its last change to the scan
    int count = 1;
};

std::vector<Row> rows() {
    const std::string scattered = "/{1:02x}/{0:04x}.bin"; // as package managers leave them
    const std::string metadata = "/.com.apple.containermanagerd.metadata.plist";
    return {
        {"~/Documents/Letter to the landlord.txt", text("Dear Sir or Madam,\n")},
        {"~/Documents/Résumé – Ann.txt", text("Ann\n")},
        {"~/Documents/Steuern 2025/übersicht.csv", text("a;b\n")},
        {"~/Pictures/Urlaub 🏖/IMG_0001.jpg", bytes(300 * kB)},
        {"~/Desktop/notes.md", text("# Notes\n")},
        {"~/Music/demo.aiff", bytes(2 * MB)},
        {"~/Library/Application Support/Notes/store.sqlite", bytes(900 * kB)},

        {"~/Library/Caches/com.example.browser" + scattered, bytes(30 * kB), 3, 300},
        {"~/Library/Caches/com.example.photos/previews.db", bytes(4200 * kB)},
        {"~/Library/Caches/com.example.music/stream.cache", bytes(3100 * kB)},
        {"~/Library/Caches/com.apple.Safari/Cache.db", bytes(2500 * kB)},
        {"~/Library/Caches/com.example.tiny/one.bin", bytes(20 * kB)},
        {"~/Library/Caches/old-download.tmp", bytes(1500 * kB)},
        {"~/Library/Caches/.DS_Store", bytes(6 * kB)},

        {"~/Library/Logs/DiagnosticReports/Browser-{:02}.ips", bytes(60 * kB), 3, 40},
        {"~/Library/Logs/com.example.sync/sync.log", bytes(1800 * kB)},
        {"~/Library/Logs/small.log", bytes(2 * kB)},
        {"~/.Trash/old project.zip", bytes(5 * MB), 12},
        {"~/.Trash/draft/pages.txt", text("…"), 12},
        {fmt::format("disk/Volumes/Backup/.Trashes/{}/film.mov", ::getuid()), bytes(2 * MB), 40},
        {"disk/Volumes/Backup/Documents/keep.txt", text("keep\n")},

        {"~/Downloads/Browser 120.dmg", bytes(6 * MB), 64},
        {"~/Downloads/Printer.PKG", bytes(1200 * kB), 0},
        {"~/Downloads/thesis.pdf", bytes(700 * kB)},
        {"~/Library/Containers/com.apple.mail/Data/Library/Mail Downloads/7A1C/Photo.jpg",
         bytes(2300 * kB)},

        {"~/.npm/_cacache/content-v2/sha512" + scattered, bytes(9 * kB), 3, 400},
        {"~/.npm/_npx/0a1b2c3d/node_modules" + scattered, bytes(12 * kB), 3, 120},
        {"~/.npm/_npx/ffee0011/node_modules" + scattered, bytes(12 * kB), 3, 60},
        {"~/Library/Caches/pip/http" + scattered, bytes(15 * kB), 3, 150},
        {"~/.cargo/registry/cache/index" + scattered, bytes(90 * kB), 3, 40},
        {"~/.gradle/caches/modules-2" + scattered, bytes(25 * kB), 3, 120},
        {"~/.m2/repository/org/example" + scattered, bytes(40 * kB), 3, 80},
        {"~/Library/Caches/ms-playwright/chromium-1129" + scattered, bytes(400 * kB), 3, 20},

        {"~/Library/Developer/Xcode/DerivedData/Weather-bqwxhfyzkjatlqdoekrsbhgvzmsi/Build/app.o",
         bytes(5 * MB)},
        {"~/Library/Developer/Xcode/DerivedData/ModuleCache.noindex/module.pcm", bytes(3 * MB)},
        {"~/Library/Developer/Xcode/iOS DeviceSupport/17.2 (21C62)/Symbols/dyld", bytes(4 * MB)},
        {"~/Library/Developer/Xcode/Archives/2024-01-05/Weather 05.01.24, 10.31.xcarchive/dSYM",
         bytes(2 * MB), 600},
        {"~/Library/Developer/CoreSimulator/Caches/images/a.bin", bytes(1300 * kB)},
        {"~/Library/Developer/CoreSimulator/Devices/6D1F/data/Library/app.db", bytes(2600 * kB)},

        {"~/Developer/shop/package.json", text("{}\n"), 94},
        {"~/Developer/shop/src/index.ts", text("export {};\n"), 94},
        {"~/Developer/shop/node_modules/left-aligned" + scattered, bytes(3 * kB), 94, 700},
        {"~/Developer/shop/node_modules/native-camera/android/build/outputs/lib.so",
         bytes(1600 * kB), 94},
        {"~/Developer/shop/.next/cache/page.js", bytes(1400 * kB), 94},
        {"~/Developer/shop/.git/HEAD", text("ref: refs/heads/main\n"), 94},
        {"~/Developer/shop/.git/logs/HEAD", text("0000 1111 Ann\n"), 94},
        {"~/Developer/solver/Cargo.toml", text("[package]\nname = \"solver\"\n"), 2},
        {"~/Developer/solver/src/main.rs", text("fn main() {}\n"), 2},
        {"~/Developer/solver/target/debug/deps" + scattered, bytes(40 * kB), 2, 90},
        {"~/Developer/analysis/main.py", text("print(1)\n"), 1},
        {"~/Developer/analysis/.venv/pyvenv.cfg", text("version = 3.11\n"), 1},
        {"~/Developer/analysis/.venv/lib" + scattered, bytes(8 * kB), 1, 200},
        // Named like build output, but nothing says that a tool could make it again.
        {"~/Developer/analysis/build/thesis.pdf", bytes(1800 * kB), 1},
        {"~/.claude/projects/shop/today.jsonl", bytes(300 * kB), 0},

        {"~/Library/Preferences/com.example.browser.plist", plist("<key>Sidebar</key><true/>")},
        {"~/Library/Preferences/com.example.damaged.plist", text("<plist><dict><key>")},
        {"~/Library/Preferences/ByHost/com.example.empty.plist", bytes(0)},
        {"~/Library/LaunchAgents/com.example.gone.plist",
         launchAgent("/Applications/Gone.app/Contents/MacOS/agent")},
        {"~/Library/LaunchAgents/com.example.shell.plist", launchAgent("/bin/sh")},
        {"~/Library/Containers/com.example.gone" + metadata, containerMetadata("com.example.gone"),
         200},
        {"~/Library/Containers/com.example.gone/Data/Documents/game.sav", bytes(2200 * kB), 200},
        {"~/Library/Containers/com.example.photos" + metadata,
         containerMetadata("com.example.photos")},
        {"~/Library/Containers/com.example.photos/Data/library.db", bytes(1900 * kB)},

        {"disk/Library/Caches/com.example.updater/package.zip", bytes(4 * MB)},
        {"disk/Library/Caches/com.apple.iconservices.store/icons.data", bytes(1700 * kB)},
        {"disk/Library/Logs/CreativeInstaller/install.log", bytes(1600 * kB)},
        {"disk/Library/Logs/DiagnosticReports/kernel-2026-11-02.panic", bytes(800 * kB)},
        {"disk/Library/Logs/DiagnosticReports/WindowServer.ips", bytes(500 * kB)},
        {"disk/private/var/log/system.log", bytes(1500 * kB), 0},
        {"disk/private/var/log/system.log.0.gz", bytes(1100 * kB), 1},
        {"disk/Library/Developer/CoreSimulator/Caches/dyld/21A328/dyld_sim_shared_cache",
         bytes(3 * MB)},

        {"homebrew/Cellar/libfoo/1.0/lib/libfoo.dylib", bytes(1200 * kB), 300},
        {"homebrew/Cellar/libbar/2.1/lib/libbar.dylib", bytes(900 * kB), 300},
    };
}

void put(const DemoWorld &world, const Row &row) {
    const auto modified = daysAgo(row.age);
    for (int i = 0; i < row.count; ++i) {
        auto path = fmt::format(fmt::runtime(row.path), i, i % 32);
        if (path.starts_with('~')) {
            path.replace(0, 1, "disk/Users/ann");
        }
        makeEntry(world.root, {path, row.what, modified});
        // An entry just made touches its folders, whose dates a scan looks at.
        for (auto folder = world.root.appending(path).parent(); folder != world.root;
             folder = folder.parent()) {
            setModified(folder, modified);
        }
    }
}

/// A tool that notes what it was asked and answers from `cases`, the body of a shell `case`, in
/// which `did` tells whether it was asked something before.
void addTool(const DemoWorld &world, std::string_view name, std::string_view cases) {
    constexpr const char *script = R"sh(#!/bin/sh
did() {{ grep -qxF "{0} $*" '{1}'; }}
printf '%s\n' "{0} $*" >> '{1}'
case "$*" in
{2}
*) exit 1 ;;
esac
)sh";
    makeEntry(world.root,
              {fmt::format("homebrew/bin/{}", name),
               text(fmt::format(script, name, world.toolLog().path(), cases)), daysAgo(300), 0755});
}

/// Tools that do as they are told: what was cleaned is reported no more.
void addTools(const DemoWorld &world) {
    addTool(world, "brew", R"sh('cleanup -n --prune=all')
    did cleanup --prune=all && exit
    echo 'Would remove: wget/1.21.4 (92 files, 4.5MB)'
    echo '==> This operation would free approximately 1.2GB of disk space.' ;;
'autoremove -n')
    did autoremove && exit
    echo '==> Would autoremove 2 unneeded formulae:'
    echo libfoo
    echo libbar ;;
'cleanup --prune=all') ;;
autoremove) rm -r "${0%/bin/*}/Cellar/libfoo" "${0%/bin/*}/Cellar/libbar" ;;)sh");
    addTool(world, "docker", R"sh('system df --format {{json .}}')
    echo '{"Active":"1","Reclaimable":"1.1GB (40%)","Type":"Images"}'
    did builder prune -f || echo '{"Reclaimable":"2.5GB","Type":"Build Cache"}' ;;
'images -f dangling=true --format {{.Size}}')
    did image prune -f && exit
    echo 120MB
    echo 1.1GB ;;
'builder prune -f' | 'image prune -f') ;;)sh");
    const auto device = world.home().appending("Library/Developer/CoreSimulator/Devices/6D1F");
    addTool(world, "xcrun",
            fmt::format(R"sh('simctl list devices unavailable -j')
    did simctl delete unavailable && echo '{{"devices":{{}}}}' && exit
    echo '{{"devices":{{"com.apple.CoreSimulator.SimRuntime.iOS-15-0":[
    {{"name":"iPhone 8","udid":"6D1F","dataPath":"{0}/data"}}]}}}}' ;;
'simctl delete unavailable') rm -r '{0}' ;;)sh",
                        device.path()));
}

void addRecords(const DemoWorld &world) {
    constexpr const char *settings = R"({"projectRoots": ["~/Developer"], "excludedPaths": [],
"includeNodeModules": true, "staleProjectDays": 30}
)";
    const auto environment = fmt::format(
        R"({{"now": "2026-11-22T12:00:00Z", "hasFullDiskAccess": true,
"runningBundleIDs": ["com.example.music"],
"runningCommandLines": ["/usr/bin/java GradleDaemon 8.5",
    "node {0}/disk/Users/ann/.npm/_npx/ffee0011/node_modules/tool"],
"installedApps": {{"com.example.browser": "Browser", "com.example.photos": "Photos",
    "com.example.music": "Music"}},
"tools": {{"brew": "{0}/homebrew/bin/brew", "docker": "{0}/homebrew/bin/docker",
    "xcrun": "{0}/homebrew/bin/xcrun"}}}}
)",
        world.root.path());
    put(world, {"settings.json", text(settings), 0});
    put(world, {"environment.json", text(environment), 0});
}

} // namespace

DemoWorld makeDemoWorld(const FileURL &root) {
    fs::create_directories(root.path());
    if (!fs::is_empty(root.path())) {
        throw std::runtime_error(root.path() + " is not empty");
    }
    const DemoWorld world{root};
    for (int i = 0; i < 12; ++i) {
        const auto session = fmt::format("~/.claude/projects/shop/{:04}.jsonl", i);
        put(world, {session, bytes(150 * kB), 90 + i});
    }
    for (const auto &row : rows()) {
        put(world, row);
    }
    fs::create_symlink("/", world.root.appending("disk/Volumes/Macintosh HD").path());
    addTools(world);
    addRecords(world);
    return world;
}

} // namespace klarbox::demo
