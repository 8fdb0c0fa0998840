#include "Tests/Support/DemoWorld.hpp"

#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace klarbox::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kB = 1000;
constexpr std::size_t MB = 1000 * kB;

constexpr std::string_view preferences = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict><key>Sidebar</key><true/><key>Width</key><integer>820</integer></dict></plist>
)";

std::string launchAgent(std::string_view label, std::string_view program) {
    return fmt::format(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>Label</key><string>{}</string>
  <key>ProgramArguments</key><array><string>{}</string><string>--quiet</string></array>
  <key>RunAtLoad</key><true/>
</dict></plist>
)",
                       label, program);
}

std::string containerMetadata(std::string_view identifier) {
    return fmt::format(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>MCMMetadataIdentifier</key><string>{}</string></dict></plist>
)",
                       identifier);
}

/// A tool that notes what it was asked and answers from `cases`, the body of a shell `case`.
std::string fakeTool(std::string_view name, const FileURL &log, std::string_view cases) {
    return fmt::format("#!/bin/sh\nprintf '%s\\n' \"{} $*\" >> '{}'\ncase \"$*\" in\n{}\n*) exit 1 "
                       ";;\nesac\n",
                       name, log.path(), cases);
}

class Builder {
public:
    explicit Builder(const DemoWorld &world) : world_(world) {}

    void build() {
        documents();
        caches();
        logsAndTrash();
        downloadsAndMail();
        packageCaches();
        xcode();
        projects();
        sessions();
        leftovers();
        system();
        tools();
        records();
    }

private:
    /// Puts one entry, last modified `age` days before the scan, into the home.
    void home(std::string path, decltype(Entry::what) what, int age = 3) {
        put("disk/Users/ann/" + std::move(path), std::move(what), age);
    }
    void disk(std::string path, decltype(Entry::what) what, int age = 3) {
        put("disk/" + std::move(path), std::move(what), age);
    }
    void put(std::string path, decltype(Entry::what) what, int age) {
        // An entry just made touches its folders, whose dates a scan looks at.
        auto folder = world_.root.appending(path).parent();
        makeEntry(world_.root, {std::move(path), std::move(what), daysAgo(age)});
        for (; folder != world_.root; folder = folder.parent()) {
            setModified(folder, daysAgo(age));
        }
    }
    /// Many small files, as package managers leave them.
    void scatter(const std::string &folder, int count, std::size_t size, int age = 3) {
        for (int i = 0; i < count; ++i) {
            home(fmt::format("{}/{:02x}/{:04x}.bin", folder, i % 32, i), bytes(size), age);
        }
    }

    void documents() {
        home("Documents/Letter to the landlord.txt", text("Dear Sir or Madam,\n"));
        home("Documents/Résumé – Ann.txt", text("Ann\n"));
        home("Documents/Steuern 2025/übersicht.csv", text("a;b\n"));
        home("Pictures/Urlaub 🏖/IMG_0001.jpg", bytes(300 * kB));
        home("Desktop/notes.md", text("# Notes\n"));
        home("Music/demo.aiff", bytes(2 * MB));
        home("Library/Application Support/Notes/store.sqlite", bytes(900 * kB));
    }

    void caches() {
        scatter("Library/Caches/com.example.browser", 300, 30 * kB);
        home("Library/Caches/com.example.photos/previews.db", bytes(4200 * kB));
        home("Library/Caches/com.example.music/stream.cache", bytes(3100 * kB));
        home("Library/Caches/com.apple.Safari/Cache.db", bytes(2500 * kB));
        home("Library/Caches/com.example.tiny/one.bin", bytes(20 * kB));
        home("Library/Caches/old-download.tmp", bytes(1500 * kB));
        home("Library/Caches/.DS_Store", bytes(6 * kB));
    }

    void logsAndTrash() {
        for (int i = 0; i < 40; ++i) {
            home(fmt::format("Library/Logs/DiagnosticReports/Browser-{:02}.ips", i),
                 bytes(60 * kB));
        }
        home("Library/Logs/com.example.sync/sync.log", bytes(1800 * kB));
        home("Library/Logs/small.log", bytes(2 * kB));
        home(".Trash/old project.zip", bytes(5 * MB), 12);
        home(".Trash/draft/pages.txt", text("…"), 12);
        disk(fmt::format("Volumes/Backup/.Trashes/{}/film.mov", ::getuid()), bytes(2 * MB), 40);
        disk("Volumes/Backup/Documents/keep.txt", text("keep\n"));
        fs::create_symlink("/", world_.root.appending("disk/Volumes/Macintosh HD").path());
    }

    void downloadsAndMail() {
        home("Downloads/Browser 120.dmg", bytes(6 * MB), 64);
        home("Downloads/Printer.PKG", bytes(1200 * kB), 0);
        home("Downloads/thesis.pdf", bytes(700 * kB));
        home("Library/Containers/com.apple.mail/Data/Library/Mail Downloads/"
             "7A1C/Photo.jpg",
             bytes(2300 * kB));
    }

    void packageCaches() {
        scatter(".npm/_cacache/content-v2/sha512", 400, 9 * kB);
        scatter(".npm/_npx/0a1b2c3d/node_modules", 120, 12 * kB);
        scatter(".npm/_npx/ffee0011/node_modules", 60, 12 * kB);
        scatter("Library/Caches/pip/http", 150, 15 * kB);
        scatter(".cargo/registry/cache/index", 40, 90 * kB);
        scatter(".gradle/caches/modules-2", 120, 25 * kB);
        scatter(".m2/repository/org/example", 80, 40 * kB);
        scatter("Library/Caches/ms-playwright/chromium-1129", 20, 400 * kB);
    }

    void xcode() {
        const std::string developer = "Library/Developer/";
        home(developer + "Xcode/DerivedData/Weather-bqwxhfyzkjatlqdoekrsbhgvzmsi/Build/app.o",
             bytes(5 * MB));
        home(developer + "Xcode/DerivedData/ModuleCache.noindex/module.pcm", bytes(3 * MB));
        home(developer + "Xcode/iOS DeviceSupport/17.2 (21C62)/Symbols/dyld", bytes(4 * MB));
        home(developer + "Xcode/Archives/2024-01-05/Weather 05.01.24, 10.31.xcarchive/dSYM",
             bytes(2 * MB), 600);
        home(developer + "CoreSimulator/Caches/images/a.bin", bytes(1300 * kB));
        home(developer + "CoreSimulator/Devices/6D1F/data/Library/app.db", bytes(2600 * kB));
    }

    void projects() {
        const auto web = std::string("Developer/shop/");
        home(web + "package.json", text("{}\n"), 94);
        home(web + "src/index.ts", text("export {};\n"), 94);
        scatter(web + "node_modules/left-aligned", 700, 3 * kB, 94);
        home(web + "node_modules/native-camera/android/build/outputs/lib.so", bytes(1600 * kB), 94);
        home(web + ".next/cache/page.js", bytes(1400 * kB), 94);
        home(web + ".git/HEAD", text("ref: refs/heads/main\n"), 94);
        home(web + ".git/logs/HEAD", text("0000 1111 Ann\n"), 94);

        const auto rust = std::string("Developer/solver/");
        home(rust + "Cargo.toml", text("[package]\nname = \"solver\"\n"), 2);
        home(rust + "src/main.rs", text("fn main() {}\n"), 2);
        scatter(rust + "target/debug/deps", 90, 40 * kB, 2);

        const auto python = std::string("Developer/analysis/");
        home(python + "main.py", text("print(1)\n"), 1);
        home(python + ".venv/pyvenv.cfg", text("version = 3.11\n"), 1);
        scatter(python + ".venv/lib", 200, 8 * kB, 1);
        // Named like build output, but nothing says that a tool could make it again.
        home(python + "build/thesis.pdf", bytes(1800 * kB), 1);
    }

    void sessions() {
        for (int i = 0; i < 12; ++i) {
            home(fmt::format(".claude/projects/shop/{:04}.jsonl", i), bytes(150 * kB), 90 + i);
        }
        home(".claude/projects/shop/today.jsonl", bytes(300 * kB), 0);
    }

    void leftovers() {
        home("Library/Preferences/com.example.browser.plist", text(std::string(preferences)));
        home("Library/Preferences/com.example.damaged.plist", text("<plist><dict><key>"));
        home("Library/Preferences/ByHost/com.example.empty.plist", bytes(0));
        home("Library/LaunchAgents/com.example.gone.plist",
             text(launchAgent("com.example.gone", "/Applications/Gone.app/Contents/MacOS/agent")));
        home("Library/LaunchAgents/com.example.shell.plist",
             text(launchAgent("com.example.shell", "/bin/sh")));
        const std::string containers = "Library/Containers/";
        const std::string metadata = "/.com.apple.containermanagerd.metadata.plist";
        home(containers + "com.example.gone" + metadata,
             text(containerMetadata("com.example.gone")), 200);
        home(containers + "com.example.gone/Data/Documents/game.sav", bytes(2200 * kB), 200);
        home(containers + "com.example.photos" + metadata,
             text(containerMetadata("com.example.photos")));
        home(containers + "com.example.photos/Data/library.db", bytes(1900 * kB));
    }

    void system() {
        disk("Library/Caches/com.example.updater/package.zip", bytes(4 * MB));
        disk("Library/Caches/com.apple.iconservices.store/icons.data", bytes(1700 * kB));
        disk("Library/Logs/CreativeInstaller/install.log", bytes(1600 * kB));
        disk("Library/Logs/DiagnosticReports/kernel-2026-11-02.panic", bytes(800 * kB));
        disk("Library/Logs/DiagnosticReports/WindowServer.ips", bytes(500 * kB));
        disk("private/var/log/system.log", bytes(1500 * kB), 0);
        disk("private/var/log/system.log.0.gz", bytes(1100 * kB), 1);
        disk("Library/Developer/CoreSimulator/Caches/dyld/21A328/dyld_sim_shared_cache",
             bytes(3 * MB));
    }

    void tools() {
        const auto log = world_.toolLog();
        tool("brew", fakeTool("brew", log,
                              "'cleanup -n --prune=all')\n"
                              "    echo 'Would remove: wget/1.21.4 (92 files, 4.5MB)'\n"
                              "    echo '==> This operation would free approximately 1.2GB of disk "
                              "space.' ;;\n"
                              "'autoremove -n')\n"
                              "    echo '==> Would autoremove 2 unneeded formulae:'\n"
                              "    echo libfoo\n    echo libbar ;;\n"
                              "'cleanup --prune=all' | autoremove) ;;"));
        put("homebrew/Cellar/libfoo/1.0/lib/libfoo.dylib", bytes(1200 * kB), 300);
        put("homebrew/Cellar/libbar/2.1/lib/libbar.dylib", bytes(900 * kB), 300);
        tool("docker",
             fakeTool("docker", log,
                      "'system df --format {{json .}}')\n"
                      "    echo '{\"Active\":\"1\",\"Reclaimable\":\"1.1GB "
                      "(40%)\",\"Type\":\"Images\"}'\n"
                      "    echo '{\"Reclaimable\":\"2.5GB\",\"Type\":\"Build Cache\"}' ;;\n"
                      "'images -f dangling=true --format {{.Size}}')\n"
                      "    echo 120MB\n    echo 1.1GB ;;\n"
                      "'builder prune -f' | 'image prune -f') ;;"));
        const auto device =
            world_.home().appending("Library/Developer/CoreSimulator/Devices/6D1F/data").path();
        const nlohmann::json listing{
            {"devices",
             {{"com.apple.CoreSimulator.SimRuntime.iOS-15-0",
               {{{"name", "iPhone 8"}, {"udid", "6D1F"}, {"dataPath", device}}}}}}};
        tool("xcrun", fakeTool("xcrun", log,
                               "'simctl list devices unavailable -j')\n    echo '" +
                                   listing.dump() + "' ;;\n'simctl delete unavailable') ;;"));
    }

    void tool(const std::string &name, const std::string &script) {
        const auto path = toolPath(name);
        put(path, text(script), 300);
        fs::permissions(world_.root.appending(path).path(), fs::perms::owner_exec,
                        fs::perm_options::add);
    }
    /// The cellar is found beside the tool's own folder.
    static std::string toolPath(const std::string &name) { return "homebrew/bin/" + name; }

    void records() {
        const nlohmann::json settings{{"projectRoots", {"~/Developer"}},
                                      {"includeNodeModules", true},
                                      {"staleProjectDays", 30},
                                      {"excludedPaths", nlohmann::json::array()}};
        nlohmann::json located;
        for (const auto *name : {"brew", "docker", "xcrun"}) {
            located[name] = world_.root.appending(toolPath(name)).path();
        }
        const auto npx = world_.home().appending(".npm/_npx/ffee0011/node_modules/tool").path();
        const nlohmann::json environment{
            {"runningBundleIDs", {"com.example.music"}},
            {"runningCommandLines", {"/usr/bin/java GradleDaemon 8.5", "node " + npx}},
            {"installedApps",
             {{"com.example.browser", "Browser"},
              {"com.example.photos", "Photos"},
              {"com.example.music", "Music"}}},
            {"hasFullDiskAccess", true},
            {"now", "2026-11-22T12:00:00Z"},
            {"tools", located}};
        put("settings.json", text(settings.dump(2) + "\n"), 0);
        put("environment.json", text(environment.dump(2) + "\n"), 0);
    }

    DemoWorld world_;
};

} // namespace

DemoWorld makeDemoWorld(const FileURL &root) {
    fs::create_directories(root.path());
    if (!fs::is_empty(root.path())) {
        throw std::runtime_error(root.path() + " is not empty");
    }
    const DemoWorld world{root};
    Builder(world).build();
    return world;
}

} // namespace klarbox::test
