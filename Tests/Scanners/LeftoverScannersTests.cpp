#include "KlarboxKit/Scanners/BrokenLaunchAgentsScanner.hpp"
#include "KlarboxKit/Scanners/BrokenPreferencesScanner.hpp"
#include "KlarboxKit/Scanners/OrphanedContainersScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/IsolatedProcess.hpp"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string xml(const std::string &value) {
    return "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + value + "</plist>\n";
}

TEST(BrokenPreferencesScanner, offersWhatCannotBePreferences) {
    const auto sound = xml("<dict><key>k</key><string>v</string></dict>");
    const std::string contents[] = {"", "hello", xml("<array/>"), xml("<string>x</string>"),
                                    sound.substr(0, 70), std::string("bplist00\x01\x02", 10),
                                    "(a, b)",
                                    // The others are preferences.
                                    sound, xml("<dict/>"), "{ k = v; }", "k = v;"};
    const TemporaryTree home{
        {"Library/Preferences/folder.plist/x", text("hello")},
        {"Library/Preferences/link.plist", link("1.plist")},
        {"Library/Preferences/Sub/deep.plist", text("hello")},
        {"Library/Preferences/ByHost/0.plist", text("hello")},
        {"Library/Preferences/l.PLIST", text("hello")},
        {"Library/Preferences/m.plist.bak", text("hello")},
    };
    ASSERT_EQ(::mkfifo((home / "Library/Preferences/pipe.plist").path().c_str(), 0600), 0);
    for (char name = '0'; const auto &content : contents) {
        home.add({fmt::format("Library/Preferences/{}.plist", name++), text(content)});
    }
    auto context = scanContext(home.root());
    context.minimumSize = 1'000'000; // does not hide them
    auto scan = BrokenPreferencesScanner().scan(context, {});
    EXPECT_THAT(titles(scan), ElementsAre("0.plist", "1.plist", "2.plist", "3.plist", "4.plist",
                                          "5.plist", "6.plist", "0.plist"));
    EXPECT_EQ(offer(scan.items.at(1), context.home, home.root()) +
                  offer(scan.items.at(7), context.home, home / "Library/Preferences"),
              R"(
broken-preferences:@ | * | ~ | item $/Library/Preferences/1.plist | .. | [ ] leftover
    Damaged, so the app uses its default settings instead.
broken-preferences:@ | * | ~ | item $/ByHost/0.plist | $ | [ ] leftover
    Damaged, so the app uses its default settings instead.)");
    EXPECT_THAT(BrokenPreferencesScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(BrokenLaunchAgentsScanner, offersAgentsWhoseProgramIsGone) {
    const TemporaryTree home{
        {"bin/there", bytes(1)},
        {"bin/linked", link("there")},
        {"bin/dangling", link("nowhere")},
        {"bin/loop", link("loop")},
    };
    const auto longName = "/" + std::string(300, 'n');
    const std::string integer = "<integer>1</integer>";
    const std::string arguments = "<key>ProgramArguments</key><array><string>/gone</string>";
    const std::pair<std::string, std::string> agents[] = {
        // with the program that is missing
        {R"(Program = "$/gone";)", "$/gone"},
        {R"(Program = "$/there";)", ""},
        {R"(Program = "$/linked";)", ""},
        {R"(Program = "$/dangling";)", "$/dangling"},
        {R"(Program = "$/loop";)", "$/loop"},
        {R"(Program = "$/there/x";)", "$/there/x"},
        {"Program = \"" + longName + "\";", longName},
        {R"(Program = "node";)", ""},
        {R"(Program = "~/gone";)", ""},
        {R"(Program = "/Volumes/Gone/x";)", ""},
        {R"(Program = "/Volumes2/x";)", "/Volumes2/x"},
        // The program decides, whatever the arguments are.
        {R"(Program = "$/there"; ProgramArguments = ("/gone");)", ""},
        {R"(Program = "node"; ProgramArguments = ("/gone");)", ""},
        {xml("<dict><key>Program</key>" + integer + arguments + "</array></dict>"), "/gone"},
        {xml("<dict>" + arguments + integer + "</array></dict>"), ""},
        {R"(ProgramArguments = ("/gone", "-x");)", "/gone"},
        {R"(ProgramArguments = ();)", ""},
        {R"(ProgramArguments = "/gone";)", ""},
        {R"(program = "/gone";)", ""},
        {R"(("/gone"))", ""},
        {"hello", ""},
    };
    const auto bin = (home / "bin").path();
    std::vector<std::string> expected;
    for (char letter = 'a'; const auto &[content, missing] : agents) {
        home.add({fmt::format("Library/LaunchAgents/{}.plist", letter++),
                  text(replaced(content, "$", bin))});
        if (!missing.empty()) {
            expected.push_back("Starts " + replaced(missing, "$", bin) +
                               ", which no longer exists. Fully stops after you log out.");
        }
    }
    auto context = scanContext(home.root());
    context.minimumSize = 1'000'000; // does not hide them
    const auto scan = BrokenLaunchAgentsScanner().scan(context, {});
    EXPECT_THAT(each(scan, &KlarboxItem::note), testing::ElementsAreArray(expected));
}

TEST(BrokenLaunchAgentsScanner, takesAProgramOfAnotherDiskForGoneOnlyWhenNeitherDiskHasIt) {
    const TemporaryTree disk{
        {"Applications/A.app/a", bytes(1)},
        {"usr/local/bin/whole", link("/Applications/A.app/a")}, // of the disk, not of this machine
        {"usr/local/bin/out", link("../../../../../../../../Applications/A.app/a")},
        {"usr/local/bin/gone", link("/bin/sh-of-nobody")},
        {"usr/local/bin/loop", link("/usr/local/bin/loop")},
        {"etc", link("/private/etc")},
        {"private/etc/x", bytes(1)},
    };
    const std::pair<const char *, bool> programs[] = {
        {"/Applications/A.app/a", false},
        {"/Applications/B.app/b", true},
        {"/usr/local/bin/whole", false},
        {"/usr/local/bin/out", false},
        {"/usr/local/bin/gone", true},
        {"/usr/local/bin/loop", true},
        {"/etc/x", false},
        {"/bin/sh", false}, // this machine has it
        {"/usr/libexec/of-the-system", true},
    };
    std::vector<std::string> gone;
    const auto home = "Users/ann";
    for (int number = 1; const auto &[program, isGone] : programs) {
        const auto list = fmt::format("{}/Library/LaunchAgents/{}.plist", home, number++);
        disk.add({list, text(fmt::format("Program = \"{}\";", program))});
        if (isGone) {
            gone.push_back("broken-launch-agents:" + (disk / list).path());
        }
    }
    const auto found = [&] {
        return each(BrokenLaunchAgentsScanner(disk.root()).scan(scanContext(disk / home), {}),
                    &KlarboxItem::id);
    };
    // The system lies on another volume of that Mac; what comes with it is not known to be gone.
    const auto ofTheSystem = gone.back();
    gone.pop_back();
    EXPECT_THAT(found(), testing::ElementsAreArray(gone));
    disk.add({"usr/bin", directory()});
    gone.push_back(ofTheSystem);
    EXPECT_THAT(found(), testing::ElementsAreArray(gone));
}

TEST(BrokenLaunchAgentsScanner, namesAgentsAsTheyNameThemselves) {
    const auto agent = [](const std::string &label) {
        return text("Program = \"/gone\"; Label = \"" + label + "\";");
    };
    const TemporaryTree home{
        {"Library/LaunchAgents/a.plist", agent("org.example.agent")},
        {"Library/LaunchAgents/b.plist", agent("")},
        {"Library/LaunchAgents/c.x.plist", text("Program = \"/gone\"; Label = (c);")},
        {"Library/LaunchAgents/d.PLIST", agent("d")},
        {"elsewhere", agent("linked")},
        {"Library/LaunchAgents/e.plist", link("../../elsewhere")},
        {"Library/LaunchAgents/f.plist", link("/dev/zero")},
        {"Library/LaunchAgents/g.plist/x", agent("g")},
    };
    const auto scan = BrokenLaunchAgentsScanner().scan(scanContext(home.root()), {});
    EXPECT_THAT(titles(scan), ElementsAre("org.example.agent", "", "c.x", "linked"));
    EXPECT_EQ(offer(scan.items.at(0), home.root(), home / "Library"), R"(
broken-launch-agents:@ | org.example.agent | ~ | item $/LaunchAgents/a.plist | .. | [ ] leftover
    Starts /gone, which no longer exists.
    Fully stops after you log out.)");
}

TEST(LeftoverScanners, leaveWhatTheyMayNotSee) {
    inIsolatedProcess([] {
        becomeOrdinaryUser();
        const TemporaryTree home{
            {.path = "Library/Preferences/a.plist", .what = text("hello"), .mode = 0},
            {"closed/program", bytes(1)},
        };
        const auto context = scanContext(home.root());
        home.add({"Library/LaunchAgents/a.plist",
                  text("Program = \"" + (home / "closed/program").path() + "\";")});
        ASSERT_EQ(::chmod((home / "closed").path().c_str(), 0), 0);
        EXPECT_EQ(offers(BrokenPreferencesScanner(), context, home.root()), "");
        EXPECT_EQ(offers(BrokenLaunchAgentsScanner(), context, home.root()), "");
    });
}

TEST(OrphanedContainersScanner, offersContainersOfAppsThatAreGone) {
    const std::string root = "Library/Containers/";
    const std::string metadata = "/.com.apple.containermanagerd.metadata.plist";
    const TemporaryTree home{
        {root + "1A2B" + metadata, text("MCMMetadataIdentifier = \"org.example.gone\";")},
        {root + "1A2B/Data/x", bytes(100'000)},
        {root + "3C4D" + metadata, text("MCMMetadataIdentifier = \"com.apple.mail\";")},
        {root + "5E6F" + metadata, text("MCMMetadataIdentifier = \"org.example.own\";")},
        // Nothing names an owner, so the folder's own name does.
        {root + "alone/x", bytes(40'000)},
        {root + "org.example.damaged" + metadata, text("hello")},
        {root + "org.example.damaged/x", bytes(60'000)},
        {root + "org.example.App.list" + metadata, text(xml("<array/>"))},
        {root + "linked", link("alone")},
    };
    addFiles(home, root,
             "com.apple.Notes/x org.example.App/x org.example.App.Widget.Extra/x "
             "org..example.App./x org.example.Apple/x two.parts/x two.parts.Widget/x file");
    auto context = scanContext(home.root());
    context.environment.installedAppName = [](std::string_view id) {
        const bool isInstalled = id == "org.example.App" || id == "two.parts" || id == "alone";
        return isInstalled ? std::optional<std::string>("App") : std::nullopt;
    };
    const OrphanedContainersScanner scanner("org.example.own");
    const std::string note = R"(
    No installed app uses this.
    Removing it deletes that app's saved data.)";
    EXPECT_EQ(replaced(offers(scanner, context, home / root), note, " WHY"), R"(
orphaned-containers:@ | org.example.gone | ~ | item $/1A2B | .. | [ ] leftover WHY
orphaned-containers:@ | * | ~ | item $/org.example.damaged | .. | [ ] leftover WHY
orphaned-containers:@ | * | ~ | item $/alone | .. | [ ] leftover WHY
orphaned-containers:@ | * | ~ | item $/org.example.Apple | .. | [ ] leftover WHY)");
    context.environment.hasFullDiskAccess = false;
    const auto blind = scanner.scan(context, {});
    EXPECT_THAT(blind.items, IsEmpty());
    EXPECT_THAT(blind.issues, ElementsAre(ScanIssue::needsFullDiskAccess("~/Library/Containers")));
    context.home = home / "empty";
    EXPECT_THAT(scanner.scan(context, {}).issues, IsEmpty());
}

} // namespace
} // namespace klarbox::test
