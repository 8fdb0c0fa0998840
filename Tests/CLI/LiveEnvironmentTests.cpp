#include "KlarboxCLI/LiveEnvironment.hpp"
#include "KlarboxKit/Platform/ChildProcess.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;

std::string xmlList(const std::vector<std::pair<std::string, std::string>> &values) {
    std::string list = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
    for (const auto &[key, value] : values) {
        list.append("<key>").append(key).append("</key><string>").append(value).append("</string>");
    }
    return list + "</dict></plist>\n";
}

/// A binary list of one text, as Xcode writes lists into bundles.
std::string binaryList(const std::string &key, const std::string &value) {
    std::string list = "bplist00";
    std::string offsets;
    const auto add = [&](const std::string &object) {
        offsets += static_cast<char>(list.size());
        list += object;
    };
    const auto ascii = [](const std::string &text) {
        return std::string("\x5f\x10") + static_cast<char>(text.size()) + text;
    };
    add("\xd1\x01\x02");
    add(ascii(key));
    add(ascii(value));
    const auto number = [](std::size_t value64) {
        return std::string(7, '\0') + static_cast<char>(value64);
    };
    const auto table = list.size();
    return list + offsets + std::string(6, '\0') + "\x01\x01" + number(3) + number(0) +
           number(table);
}

constexpr const char *damagedList = "<plist><dict><key>CFBundleIdentifier</key><string>com.exa";

void setMode(const FileURL &url, int mode) {
    std::filesystem::permissions(url.path(), std::filesystem::perms(mode));
}

/// Sets a variable for as long as it lives.
class ScopedVariable {
public:
    ScopedVariable(const char *name, const std::string &value) : name_(name) {
        if (const char *old = std::getenv(name)) {
            old_ = old;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedVariable() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }
    ScopedVariable(const ScopedVariable &) = delete;
    ScopedVariable &operator=(const ScopedVariable &) = delete;

private:
    const char *name_;
    std::optional<std::string> old_;
};

/// Has this thread meet file modes as everyone does, also when this is root.
class AsOrdinaryUser {
public:
    AsOrdinaryUser() { ::setfsuid(isRoot() ? 65534 : ::geteuid()); }
    ~AsOrdinaryUser() { ::setfsuid(::geteuid()); }
    AsOrdinaryUser(const AsOrdinaryUser &) = delete;
    AsOrdinaryUser &operator=(const AsOrdinaryUser &) = delete;
};

/// The environment once `child`, which runs `sleep 30` under another name, is up.
ScanEnvironment environmentWith(ChildProcess &child, const FileURL &program) {
    for (;;) {
        auto environment = liveEnvironment(FileURL("/nonexistent"), FileURL("/"));
        // Just after its start a process has its executable already, but not its arguments.
        if (environment.isRunning(program.path() + " 30") || child.wait(5ms, {})) {
            child.terminate();
            EXPECT_TRUE(child.wait(10s, {}));
            return environment;
        }
    }
}

TEST(LiveEnvironment, knowsAnApplicationAsRunningByTheBundleItsExecutableLiesIn) {
    const TemporaryTree tree{
        {"Outer.app/Contents/Info.plist", text(xmlList({{"CFBundleIdentifier", "com.e.outer"}}))},
        {"Outer.app/Contents/Inner.app/Contents/Info.plist",
         text(binaryList("CFBundleIdentifier", "com.e.inner"))},
        {"Outer.app/Contents/Damaged.app/Contents/Info.plist", text(damagedList)},
        {"Phone.app/Info.plist", text(xmlList({{"CFBundleIdentifier", "com.e.phone"}}))},
        {"No.apple/Contents/Info.plist", text(xmlList({{"CFBundleIdentifier", "com.e.no"}}))},
    };
    const struct {
        const char *executable;
        std::vector<std::string> expected;
    } cases[] = {
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
        ChildProcess child(program, {"30", "0"}, {});
        const auto environment = environmentWith(child, program);

        std::vector<std::string> running;
        std::ranges::copy_if(environment.runningBundleIDs, std::back_inserter(running),
                             [](const std::string &id) { return id.starts_with("com.e."); });
        EXPECT_EQ(running, expected) << executable;
        EXPECT_THAT(environment.runningCommandLines,
                    testing::Contains(program.path() + " 30 0").Times(1));
    }
}

TEST(LiveEnvironment, showsAProgramThatWasStartedThroughALinkUnderBothPaths) {
    const TemporaryTree tree{{"tool-1.2", directory()}, {"bin/tool", link("../tool-1.2/tool")}};
    std::filesystem::copy_file("/usr/bin/sleep", (tree / "tool-1.2/tool").path());
    ChildProcess child(tree / "bin/tool", {"30"}, {});
    const auto environment = environmentWith(child, tree / "bin/tool");
    EXPECT_TRUE(environment.isRunning((tree / "tool-1.2").path() + "/"));
    EXPECT_TRUE(environment.isRunning((tree / "bin").path() + "/"));
}

TEST(LiveEnvironment, knowsInstalledApplicationsByBundlesAndDesktopEntries) {
    const TemporaryTree tree{
        {"home/Applications/Full.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.full"},
                       {"CFBundleName", "Short"},
                       {"CFBundleDisplayName", "Full Name"}}))},
        {"home/Applications/Short.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.Short"}, {"CFBundleName", "Short"}}))},
        {"home/Applications/Bi.nary.app/Contents/Info.plist",
         text(binaryList("CFBundleIdentifier", "com.e.binary"))},
        {"home/Applications/Damaged.app/Contents/Info.plist", text(damagedList)},
        {"home/Applications/Nameless.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", ""}, {"CFBundleName", "Nameless"}}))},
        {"home/Applications/Empty.app", directory()},
        {"home/Applications/File.app", bytes(10)},
        {"home/Applications/Gone.app", link("/nonexistent/Gone.app")},
        {"home/Applications/Linked.app", link("../../elsewhere/Linked.app")},
        {"elsewhere/Linked.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.linked"}}))},
        {"home/Applications/circle", link(".")},
        {"disk/Applications/Suite/Tools/Deep.app/WrappedBundle/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.deep"}}))},
        {"disk/Applications/Extra", link("../../extra")},
        {"extra/Extra.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.extra"}}))},
        {"disk/Applications/Full.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.full"}, {"CFBundleName", "Older"}}))},
        {"disk/System/Applications/System.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.system"}}))},
        {"home/.local/share/applications/org.e.Viewer.desktop",
         text("# Name=Comment\n[Desktop Action new]\nName=New Window\n\n"
              "[Desktop Entry]\r\nType=Application\nName[de]=Betrachter\nName = The\\sViewer\\\\ \n"
              "\n[Desktop Action other]\nName=Other\n")},
        {"home/.local/share/flatpak/exports/share/applications/org.e.Flat.desktop",
         text("[Desktop Entry]\nName=Flat\n")},
        {"data/applications/org.e.Own.desktop", text("[Desktop Entry]\nName=Own\n")},
        {"share/applications/org.e.Viewer.desktop", text("[Desktop Entry]\nName=Older\n")},
        {"share/applications/org.e.Bare.desktop", text("Name=Outside of any group\n")},
        {"share/applications/org.e.Folder.desktop", directory()},
        {"share/applications/org.e.List.list", text("[Desktop Entry]\nName=List\n")},
        {"more/applications/org.e.More.desktop", text("[Desktop Entry]\nName=Zwölf\n")},
    };
    const ScopedVariable data("XDG_DATA_HOME", (tree / "data").path());
    const ScopedVariable share("XDG_DATA_DIRS",
                               (tree / "share").path() + "::relative:" + (tree / "more").path());
    const auto environment = liveEnvironment(tree / "home", tree / "disk");

    const struct {
        const char *identifier;
        std::optional<std::string> expected;
    } cases[] = {
        {"com.e.full", "Full Name"},
        {"com.e.short", "Short"}, // letter case does not tell applications apart
        {"com.e.binary", "Bi.nary"},
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
    for (const auto &[identifier, expected] : cases) {
        EXPECT_EQ(environment.installedAppName(identifier), expected) << identifier;
    }
}

TEST(LiveEnvironment, answersTheSameToManyScannersAtOnce) {
    const TemporaryTree tree{
        {"home/Applications/A.app/Contents/Info.plist",
         text(xmlList({{"CFBundleIdentifier", "com.e.a"}}))},
    };
    const auto environment = liveEnvironment(tree / "home", tree.root());
    std::vector<std::optional<std::string>> answers(8);
    {
        std::vector<std::jthread> scanners;
        for (auto &answer : answers) {
            scanners.emplace_back([&] { answer = environment.installedAppName("com.e.a"); });
        }
    }
    EXPECT_THAT(answers, testing::Each(std::optional<std::string>("A")));
}

TEST(LiveEnvironment, takesUnknownApplicationsForInstalledWhereItCouldNotLook) {
    const auto installed = xmlList({{"CFBundleIdentifier", "com.e.seen"}});
    const struct {
        const char *name;
        const char *forbidden; ///< made unreadable; a FIFO takes its place when it is a list
    } cases[] = {
        {"a folder of applications", "home/Applications"},
        {"an application", "home/Applications/A.app"},
        {"a list", "home/Applications/A.app/Contents/Info.plist"},
        {"a folder of desktop entries", "home/.local/share/applications"},
    };
    for (const auto &[name, forbidden] : cases) {
        const TemporaryTree tree{
            {"home/Applications/A.app/Contents/MacOS/a", bytes(1)},
            {"disk/Applications/Seen.app/Contents/Info.plist", text(installed)},
            {"home/.local/share/applications/a.desktop", bytes(1)},
        };
        setMode(tree.root(), 0755);
        const auto url = tree / forbidden;
        if (url.extension() == "plist") {
            ASSERT_EQ(::mkfifo(url.path().c_str(), 0644), 0);
        } else {
            setMode(url, 0);
        }
        const AsOrdinaryUser user;
        const auto environment = liveEnvironment(tree / "home", tree / "disk");
        EXPECT_EQ(environment.installedAppName("com.e.seen"), "Seen") << name;
        EXPECT_EQ(environment.installedAppName("com.e.unseen"), "com.e.unseen") << name;
    }
}

TEST(LiveEnvironment, hasFullDiskAccessUnlessAGuardedFolderRefusesToBeListed) {
    const struct {
        const char *name;
        std::vector<Entry> entries;
        const char *closed = nullptr;
        int mode = 0; ///< of what is closed
        bool expected = false;
    } cases[] = {
        {.name = "nothing there", .entries = {}, .expected = true},
        {.name = "all open",
         .entries = {{"Library/Mail/V10", directory()}, {"Library/Safari/x", bytes(1)}},
         .expected = true},
        {.name = "a file in its place",
         .entries = {{"Library/Mail", bytes(1)}},
         .closed = "Library/Mail",
         .expected = true},
        {.name = "a link to nowhere",
         .entries = {{"Library/Safari", link("nowhere")}},
         .expected = true},
        {.name = "Mail closed",
         .entries = {{"Library/Mail", directory()}},
         .closed = "Library/Mail"},
        {.name = "Mail open, Safari closed",
         .entries = {{"Library/Mail/V10", directory()}, {"Library/Safari", directory()}},
         .closed = "Library/Safari"},
        {.name = "may be entered, not listed",
         .entries = {{"Library/Safari/x", bytes(1)}},
         .closed = "Library/Safari",
         .mode = 0111},
        {.name = "containers closed",
         .entries = {{"Library/Containers/x", directory()}},
         .closed = "Library/Containers"},
    };
    for (const auto &[name, entries, closed, mode, expected] : cases) {
        const TemporaryTree tree;
        setMode(tree.root(), 0755);
        for (const auto &entry : entries) {
            tree.add(entry);
        }
        if (closed != nullptr) {
            setMode(tree / closed, mode);
        }
        const AsOrdinaryUser user;
        EXPECT_EQ(liveEnvironment(tree.root(), FileURL("/")).hasFullDiskAccess, expected) << name;
    }
}

} // namespace
} // namespace klarbox::test
