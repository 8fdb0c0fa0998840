#include "KlarboxKit/Scanners/BrokenLaunchAgentsScanner.hpp"
#include "KlarboxKit/Scanners/BrokenPreferencesScanner.hpp"
#include "KlarboxKit/Scanners/OrphanedContainersScanner.hpp"

#include "Tests/Scanners/ScanResults.hpp"
#include "Tests/Support/ScanFixture.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <sys/stat.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

std::string xml(const std::string &value) {
    return "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">" + value + "</plist>\n";
}

std::string xmlDictionary(std::initializer_list<std::pair<std::string, std::string>> values) {
    std::string text;
    for (const auto &[key, value] : values) {
        text += "<key>" + key + "</key>" + value;
    }
    return xml("<dict>" + text + "</dict>");
}

std::string xmlString(const std::string &value) {
    return "<string>" + value + "</string>";
}

TEST(BrokenPreferencesScanner, offersWhatCannotBePreferences) {
    const struct {
        std::string name;
        std::string content;
        bool isOffered;
    } files[] = {
        {"a empty.plist", "", true},
        {"b text.plist", "hello", true},
        {"c array.plist", xml("<array/>"), true},
        {"d string.plist", xml("<string>x</string>"), true},
        {"e cut.plist", xmlDictionary({{"k", xmlString("v")}}).substr(0, 70), true},
        {"f binary.plist", std::string("bplist00\x01\x02", 10), true},
        {"g old list.plist", "(a, b)", true},
        {"h dictionary.plist", xmlDictionary({{"k", xmlString("v")}}), false},
        {"i no keys.plist", xml("<dict/>"), false},
        {"j old.plist", "{ k = v; }", false},
        {"k strings.plist", "k = v;", false},
        {"l.PLIST", "hello", false},
        {"m.plist.bak", "hello", false},
        {".plist", "hello", true},
    };
    const TemporaryTree home{
        {"Library/Preferences/folder.plist/x", text("hello")},
        {"Library/Preferences/link.plist", link("b text.plist")},
        {"Library/Preferences/Sub/deep.plist", text("hello")},
        {"Library/Preferences/ByHost/0.plist", text("hello")},
        {"Library/Preferences/ByHost/1.plist", text("{}")},
    };
    ASSERT_EQ(::mkfifo((home / "Library/Preferences/pipe.plist").path().c_str(), 0600), 0);
    std::vector<std::string> expected;
    for (const auto &[name, content, isOffered] : files) {
        home.add({"Library/Preferences/" + name, text(content)});
        if (isOffered) {
            expected.push_back(name);
        }
    }
    std::ranges::sort(expected);
    expected.emplace_back("ByHost/0.plist");
    for (auto &name : expected) {
        name = fmt::format("broken-preferences:$/Library/Preferences/{0} | {1} | "
                           "~/Library/Preferences/{0} | item $/Library/Preferences/{0} | "
                           "$/Library/Preferences | leftover |  | Damaged, so the app uses its "
                           "default settings instead.",
                           name, name.substr(name.find('/') + 1));
    }
    auto context = scanContext(home.root());
    context.minimumSize = 1'000'000; // does not hide them
    const auto scan = BrokenPreferencesScanner().scan(context, {});
    EXPECT_THAT(lines(scan, home), ElementsAreArray(expected));
    EXPECT_THAT(scan.issues, IsEmpty());
    EXPECT_THAT(BrokenPreferencesScanner().scan(context, stopped()).items, IsEmpty());
}

TEST(BrokenPreferencesScanner, leavesFilesThatItMayNotRead) {
    if (isRoot()) {
        GTEST_SKIP() << "root may read everything";
    }
    const TemporaryTree home{
        {.path = "Library/Preferences/a.plist", .what = text("hello"), .mode = 0},
        {"Library/Preferences/b.plist", text("hello")},
    };
    EXPECT_THAT(titles(BrokenPreferencesScanner().scan(scanContext(home.root()), {})),
                ElementsAre("b.plist"));
}

TEST(BrokenLaunchAgentsScanner, offersAgentsWhoseProgramIsGone) {
    const TemporaryTree home{
        {"bin/there", bytes(1)},
        {"bin/linked", link("there")},
        {"bin/dangling", link("nowhere")},
        {"bin/loop", link("loop")},
    };
    const auto bin = (home / "bin").path();
    const auto program = [](const std::string &path) {
        return std::pair<std::string, std::string>("Program", xmlString(path));
    };
    const auto arguments = [](const std::string &elements) {
        return std::pair<std::string, std::string>("ProgramArguments",
                                                   "<array>" + elements + "</array>");
    };
    const struct {
        std::string content;
        std::string missing; ///< empty: the agent is not offered
    } agents[] = {
        {xmlDictionary({program(bin + "/gone")}), bin + "/gone"},
        {xmlDictionary({program(bin + "/there")}), ""},
        {xmlDictionary({program(bin + "/linked")}), ""},
        {xmlDictionary({program(bin + "/dangling")}), bin + "/dangling"},
        {xmlDictionary({program(bin + "/loop")}), bin + "/loop"},
        {xmlDictionary({program(bin + "/there/x")}), bin + "/there/x"},
        {xmlDictionary({program(bin + "/" + std::string(300, 'n'))}),
         bin + "/" + std::string(300, 'n')},
        {xmlDictionary({program("node")}), ""},
        {xmlDictionary({program("~/gone")}), ""},
        {xmlDictionary({program("/Volumes/Gone/x")}), ""},
        {xmlDictionary({program("/Volumes2/x")}), "/Volumes2/x"},
        // The program decides, whatever the arguments are.
        {xmlDictionary({program(bin + "/there"), arguments(xmlString("/gone"))}), ""},
        {xmlDictionary({program("node"), arguments(xmlString("/gone"))}), ""},
        {xmlDictionary({{"Program", "<integer>1</integer>"}, arguments(xmlString("/gone"))}),
         "/gone"},
        {xmlDictionary({arguments(xmlString("/gone") + xmlString("-x"))}), "/gone"},
        {xmlDictionary({arguments(xmlString("/gone") + "<integer>1</integer>")}), ""},
        {xmlDictionary({arguments("")}), ""},
        {xmlDictionary({{"ProgramArguments", xmlString("/gone")}}), ""},
        {xmlDictionary({{"program", xmlString("/gone")}}), ""},
        {"{ Program = \"/gone\"; }", "/gone"},
        {xml("<array>" + xmlString("/gone") + "</array>"), ""},
        {"hello", ""},
        {"", ""},
    };
    std::vector<std::string> expected;
    for (char letter = 'a'; const auto &[content, missing] : agents) {
        const auto name = std::string("agent.") + letter++;
        home.add({"Library/LaunchAgents/" + name + ".plist", text(content)});
        if (!missing.empty()) {
            expected.push_back(fmt::format(
                "broken-launch-agents:$/Library/LaunchAgents/{0}.plist | {0} | "
                "~/Library/LaunchAgents/{0}.plist | item $/Library/LaunchAgents/{0}.plist | "
                "$/Library/LaunchAgents | leftover |  | Starts {1}, which no longer exists. "
                "Fully stops after you log out.",
                name, missing.starts_with(bin) ? "$/bin" + missing.substr(bin.size()) : missing));
        }
    }
    auto context = scanContext(home.root());
    context.minimumSize = 1'000'000; // does not hide them
    const auto scan = BrokenLaunchAgentsScanner().scan(context, {});
    EXPECT_THAT(lines(scan, home), ElementsAreArray(expected));
    EXPECT_THAT(scan.issues, IsEmpty());
}

TEST(BrokenLaunchAgentsScanner, namesAgentsAsTheyNameThemselves) {
    const auto agent = [](const std::string &label) {
        return text(xmlDictionary({{"Program", xmlString("/gone")}, {"Label", label}}));
    };
    const TemporaryTree home{
        {"Library/LaunchAgents/a.plist", agent(xmlString("org.example.agent"))},
        {"Library/LaunchAgents/b.plist", agent(xmlString(""))},
        {"Library/LaunchAgents/c.x.plist", agent("<integer>1</integer>")},
        {"Library/LaunchAgents/d.PLIST", agent(xmlString("d"))},
        {"elsewhere", agent(xmlString("linked"))},
        {"Library/LaunchAgents/e.plist", link("../../elsewhere")},
        {"Library/LaunchAgents/f.plist", link("/dev/zero")},
        {"Library/LaunchAgents/g.plist/x", agent(xmlString("g"))},
    };
    EXPECT_THAT(titles(BrokenLaunchAgentsScanner().scan(scanContext(home.root()), {})),
                ElementsAre("org.example.agent", "", "c.x", "linked"));
}

TEST(BrokenLaunchAgentsScanner, leavesProgramsThatItMayNotSee) {
    if (isRoot()) {
        GTEST_SKIP() << "root may see everything";
    }
    const TemporaryTree home{{"private/program", bytes(1)}};
    home.add({"Library/LaunchAgents/a.plist",
              text(xmlDictionary({{"Program", xmlString((home / "private/program").path())}}))});
    ASSERT_EQ(::chmod((home / "private").path().c_str(), 0), 0);
    EXPECT_THAT(BrokenLaunchAgentsScanner().scan(scanContext(home.root()), {}).items, IsEmpty());
}

TEST(OrphanedContainersScanner, offersContainersOfAppsThatAreGone) {
    const std::string metadata = "/.com.apple.containermanagerd.metadata.plist";
    const auto owner = [](const std::string &identifier) {
        return text(xmlDictionary({{"MCMMetadataIdentifier", xmlString(identifier)}}));
    };
    const std::string root = "Library/Containers/";
    const TemporaryTree home{
        {root + "1A2B" + metadata, owner("org.example.gone")},
        {root + "1A2B/Data/x", bytes(100'000)},
        {root + "com.apple.Notes/x", bytes(9000)},
        {root + "3C4D" + metadata, owner("com.apple.mail")},
        {root + "5E6F" + metadata, owner("org.example.own")},
        {root + "org.example.App/x", bytes(9000)},
        {root + "org.example.App.Widget.Extra/x", bytes(9000)},
        {root + "org..example.App./x", bytes(9000)},
        {root + "org.example.Apple/x", bytes(20'000)},
        // Nothing names an owner, so the folder's own name does.
        {root + "alone/x", bytes(40'000)},
        {root + "org.example.damaged" + metadata, text("hello")},
        {root + "org.example.damaged/x", bytes(60'000)},
        {root + "org.example.App.list" + metadata, text(xml("<array/>"))},
        {root + "linked", link("alone")},
        {root + "file", bytes(9000)},
    };
    auto context = scanContext(home.root());
    context.environment.installedAppName = [](std::string_view id) {
        return id == "org.example.App" || id == "alone" ? std::optional<std::string>("App")
                                                        : std::nullopt;
    };
    const auto expected = [](const std::string &folder, const std::string &title) {
        return fmt::format("orphaned-containers:$/Library/Containers/{0} | {1} | "
                           "~/Library/Containers/{0} | item $/Library/Containers/{0} | "
                           "$/Library/Containers | leftover |  | No installed app uses this. "
                           "Removing it deletes that app's saved data.",
                           folder, title);
    };
    const OrphanedContainersScanner scanner("org.example.own");
    const auto scan = scanner.scan(context, {});
    EXPECT_THAT(lines(scan, home),
                ElementsAre(expected("1A2B", "org.example.gone"),
                            expected("org.example.damaged", "org.example.damaged"),
                            expected("alone", "alone"),
                            expected("org.example.Apple", "org.example.Apple")));
    EXPECT_THAT(scan.issues, IsEmpty());
    EXPECT_THAT(scanner.scan(context, stopped()).items, IsEmpty());
    context.minimumSize = scan.items.at(1).size;
    EXPECT_THAT(titles(scanner.scan(context, {})),
                ElementsAre("org.example.gone", "org.example.damaged"));

    context.environment.hasFullDiskAccess = false;
    const auto blind = scanner.scan(context, {});
    EXPECT_THAT(blind.items, IsEmpty());
    EXPECT_THAT(blind.issues, ElementsAre(ScanIssue::needsFullDiskAccess("~/Library/Containers")));
    const TemporaryTree empty;
    context.home = empty.root();
    EXPECT_THAT(scanner.scan(context, {}).issues, IsEmpty());
}

} // namespace
} // namespace klarbox::test
