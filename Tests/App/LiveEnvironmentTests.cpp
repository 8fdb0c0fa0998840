#include "KlarboxApp/Environment/LiveEnvironment.hpp"

#include "Tests/Support/IsolatedProcess.hpp"
#include "Tests/Support/Programs.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::Contains;

/// A property list in a bundle, with whatever is given of these.
Entry plist(std::string path, std::string_view identifier, std::string_view name = {},
            std::string_view displayName = {}) {
    std::string list;
    const auto add = [&](std::string_view key, std::string_view value) {
        if (!value.empty()) {
            list += fmt::format("<key>{}</key><string>{}</string>", key, value);
        }
    };
    add("CFBundleIdentifier", identifier);
    add("CFBundleName", name);
    add("CFBundleDisplayName", displayName);
    return {std::move(path), text("<plist version=\"1.0\"><dict>" + list + "</dict></plist>")};
}

Entry damaged(std::string path) {
    return {std::move(path), text("<plist><dict><key>CFBundleIdentifier</key><string>com.exa")};
}

/// A folder that its owner may not list.
Entry closed(std::string path, mode_t mode = 0) {
    return {std::move(path), directory(), std::nullopt, mode};
}

/// The environment while `program`, a copy of sleep, runs.
ScanEnvironment environmentWith(const FileURL &program) {
    const Running running({.arguments = {program.path(), "30", "0"}});
    ScanEnvironment environment;
    // Just after its start a process has its executable already, but not its arguments.
    EXPECT_TRUE(eventually([&] {
        environment = liveEnvironment(FileURL("/nonexistent"), nullptr);
        return environment.isRunning(program.path() + " 30");
    }));
    return environment;
}

TEST(LiveEnvironment, knowsAnApplicationAsRunningByTheBundleItsExecutableLiesIn) {
    const TemporaryTree tree{
        plist("Outer.app/Contents/Info.plist", "com.e.outer"),
        plist("Outer.app/Contents/Inner.app/Contents/Info.plist", "com.e.inner"),
        damaged("Outer.app/Contents/Damaged.app/Contents/Info.plist"),
        plist("Phone.app/Info.plist", "com.e.phone"),
        plist("No.apple/Contents/Info.plist", "com.e.no"),
    };
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"Outer.app/Contents/MacOS/outer", {"com.e.outer"}},
        {"Outer.app/Contents/Inner.app/Contents/MacOS/inner", {"com.e.inner"}},
        {"Outer.app/Contents/Damaged.app/Contents/MacOS/damaged", {"com.e.outer"}},
        {"Phone.app/phone", {"com.e.phone"}},
        {"No.apple/Contents/MacOS/no", {}},
        {"bin/tool.app", {}},
    };
    for (const auto &[executable, expected] : cases) {
        const auto program = tree / executable;
        std::filesystem::create_directories(program.parent().path());
        std::filesystem::copy_file("/usr/bin/sleep", program.path());
        const auto environment = environmentWith(program);
        std::vector<std::string> running;
        std::ranges::copy_if(environment.runningBundleIDs, std::back_inserter(running),
                             [](const std::string &id) { return id.starts_with("com.e."); });
        EXPECT_EQ(running, expected) << executable;
        EXPECT_THAT(environment.runningCommandLines, Contains(program.path() + " 30 0").Times(1));
    }
    // Started through a link, a program is known by both paths.
    tree.add({"link", link("bin/tool.app")});
    EXPECT_TRUE(environmentWith(tree / "link").isRunning((tree / "bin").path() + "/"));
}

TEST(LiveEnvironment, knowsInstalledApplicationsByBundlesAndDesktopEntries) {
    const std::string list = "/Contents/Info.plist";
    const std::string entries = "/applications/org.e.";
    const TemporaryTree tree{
        plist("home/Applications/Full.app" + list, "com.e.full", "Short", "Full Name"),
        plist("home/Applications/Short.app" + list, "com.e.Short", "Short"),
        plist("home/Applications/Bare.name.app" + list, "com.e.bare"),
        damaged("home/Applications/Damaged.app" + list),
        plist("home/Applications/Nameless.app" + list, "", "Nameless"),
        {"home/Applications/Empty.app", directory()},
        {"home/Applications/File.app", bytes(10)},
        {"home/Applications/Gone.app", link("/nonexistent/Gone.app")},
        {"home/Applications/Linked.app", link("../../elsewhere/Linked.app")},
        plist("elsewhere/Linked.app" + list, "com.e.linked"),
        {"home/Applications/circle", link(".")},
        plist("disk/Applications/Suite/Tools/Deep.app/WrappedBundle/Info.plist", "com.e.deep"),
        {"disk/Applications/Extra", link("../../extra")},
        plist("extra/Extra.app" + list, "com.e.extra"),
        plist("disk/Applications/Full.app" + list, "com.e.full", "Older"),
        plist("disk/System/Applications/System.app" + list, "com.e.system"),
        {"home/.local/share" + entries + "Viewer.desktop",
         text("# Name=Comment\n[Desktop Action new]\nName=New Window\n\n"
              "[Desktop Entry]\r\nType=Application\nName[de]=Betrachter\nName = The\\sViewer\\\\ \n"
              "\n[Desktop Action other]\nName=Other\n")},
        {"home/.local/share/flatpak/exports/share" + entries + "Flat.desktop",
         text("[Desktop Entry]\nName=Flat\n")},
        {"data" + entries + "Own.desktop", text("[Desktop Entry]\nName=Own\n")},
        {"share" + entries + "Viewer.desktop", text("[Desktop Entry]\nName=Older\n")},
        {"share" + entries + "Bare.desktop", text("Name=Outside of any group\n")},
        {"share" + entries + "Folder.desktop", directory()},
        {"share" + entries + "List.list", text("[Desktop Entry]\nName=List\n")},
        {"more" + entries + "More.desktop", text("[Desktop Entry]\nName=Zwölf\n")},
    };
    const std::pair<const char *, std::optional<std::string>> cases[] = {
        {"com.e.full", "Full Name"},
        {"com.e.short", "Short"}, // letter case does not tell applications apart
        {"com.e.bare", "Bare.name"},
        {"com.e.linked", "Linked"},
        {"com.e.deep", "Deep"},
        {"com.e.extra", "Extra"},
        {"com.e.system", "System"},
        {"com.e", std::nullopt},
        {"com.exa", std::nullopt},
        {"", std::nullopt},
        {"org.e.Viewer", "The Viewer\\"},
        {"org.e.Flat", "Flat"},
        {"org.e.Own", "Own"},
        {"org.e.Bare", "org.e.Bare"},
        {"org.e.Folder", "org.e.Folder"},
        {"org.e.List", std::nullopt},
        {"org.e.More", "Zwölf"},
    };
    inIsolatedProcess([&] {
        const auto shared = (tree / "share").path() + "::relative:" + (tree / "more").path();
        ::setenv("XDG_DATA_HOME", (tree / "data").path().c_str(), 1);
        ::setenv("XDG_DATA_DIRS", shared.c_str(), 1);
        const auto environment =
            liveEnvironment(tree / "home", applicationsFor(tree / "home", tree / "disk"));
        // Scanners ask side by side.
        std::vector<std::jthread> scanners(4);
        for (auto &scanner : scanners) {
            scanner = std::jthread([&] {
                for (const auto &[identifier, expected] : cases) {
                    EXPECT_EQ(environment.installedAppName(identifier), expected) << identifier;
                }
            });
        }
    });
}

TEST(LiveEnvironment, takesUnknownApplicationsForInstalledWhereItCouldNotLook) {
    const auto list = "home/Applications/A.app/Contents/Info.plist";
    for (const std::string unreadable :
         {"home/Applications", "home/Applications/A.app", "home/.local/share/applications", list}) {
        const TemporaryTree tree{
            {"home/Applications/A.app/Contents/MacOS/a", bytes(1)},
            {"home/.local/share/applications/a.desktop", bytes(1)},
            plist("disk/Applications/Seen.app/Contents/Info.plist", "com.e.seen"),
        };
        if (unreadable == list) {
            ASSERT_EQ(::mkfifo((tree / list).path().c_str(), 0644), 0);
        } else {
            tree.add(closed(unreadable));
        }
        std::filesystem::permissions(tree.root().path(), std::filesystem::perms(0755));
        inIsolatedProcess([&] {
            becomeOrdinaryUser();
            const auto environment =
                liveEnvironment(tree / "home", applicationsFor(tree / "home", tree / "disk"));
            EXPECT_EQ(environment.installedAppName("com.e.seen"), "Seen") << unreadable;
            EXPECT_EQ(environment.installedAppName("com.e.unseen"), "com.e.unseen") << unreadable;
        });
    }
}

TEST(LiveEnvironment, hasFullDiskAccessUnlessAGuardedFolderRefusesToBeListed) {
    const Entry openMail{"Library/Mail/V10", directory()};
    const struct {
        const char *name;
        std::vector<Entry> entries;
        bool expected;
    } cases[] = {
        {"nothing there", {}, true},
        {"all open", {openMail, {"Library/Safari/x", bytes(1)}}, true},
        {"a file in its place", {{"Library/Mail", bytes(1), std::nullopt, 0}}, true},
        {"a link to nowhere", {{"Library/Safari", link("nowhere")}}, true},
        {"Mail closed", {closed("Library/Mail")}, false},
        {"Mail open, Safari closed", {openMail, closed("Library/Safari")}, false},
        {"may be entered, not listed", {closed("Library/Safari", 0111)}, false},
        {"containers closed", {closed("Library/Containers")}, false},
    };
    for (const auto &[name, entries, expected] : cases) {
        const TemporaryTree tree;
        std::filesystem::permissions(tree.root().path(), std::filesystem::perms(0755));
        std::ranges::for_each(entries, [&](const Entry &entry) { tree.add(entry); });
        inIsolatedProcess([&, &name = name, &expected = expected] {
            becomeOrdinaryUser();
            EXPECT_EQ(liveEnvironment(tree.root(), nullptr).hasFullDiskAccess, expected) << name;
        });
    }
}

} // namespace
} // namespace klarbox::test
