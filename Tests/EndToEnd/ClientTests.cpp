#include "KlarboxApp/Privileged/HelperClient.hpp"
#include "KlarboxKit/Helper/TimeLimitedPrivilegedRemover.hpp"

#include "Tests/EndToEnd/World.hpp"
#include "Tests/Support/TemporaryTree.hpp"

#include <csignal>
#include <filesystem>
#include <future>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace klarbox::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Client : public EndToEnd {
protected:
    void SetUp() override {
        EndToEnd::SetUp();
        if (!IsSkipped()) {
            client_ = installSigned("helper-client", "client");
        }
    }

    /// Puts somebody into the helper's place who claims to run this program.
    void startImpostor(const std::string &program, const std::string &reply = "",
                       std::optional<uid_t> user = std::nullopt) {
        // The folder lets anybody put a socket into it, as no machine's would.
        std::filesystem::create_directories("/run/klarbox");
        std::filesystem::permissions("/run/klarbox", std::filesystem::perms::all);
        impostor_.emplace(foreign("impostor " + program + " " + reply, user));
        ASSERT_EQ(impostor_->readLine(), "listening");
    }

    /// What the application's client says when it is to remove one file.
    Outcome remove(const std::string &path) const {
        Running client({.arguments = {client_, "removeItem"}});
        client.writeLine(path);
        return client.finish();
    }

    std::string client_;
    std::optional<Running> impostor_;
};

TEST_F(Client, keepsAConnectionAndMakesAnotherWhenTheHelperWasRestarted) {
    startHelper();
    Running client({.arguments = {client_, "removeItem"}});
    for (const bool isRestarted : {false, false, true}) {
        if (isRestarted) {
            stopHelper();
            startHelper();
        }
        writeFile("/Library/Caches/x", "x");
        client.writeLine("/Library/Caches/x");
        EXPECT_EQ(client.readLine(), R"({"removedCount":1,"failedCount":0,"bytes":4096})");
    }
    client.writeLine("/" + std::string(5000, 'a')); // would not fit a message
    EXPECT_EQ(json::parse(client.readLine())["refusal"], "notInsideRoot");
    EXPECT_EQ(client.finish().exitCode, 0);
}

TEST_F(Client, tellsNothingToWhoeverIsNotTheHelperAndBelievesNobodyElse) {
    const auto unsignedHelper = install("KlarboxHelper", "unsigned");
    const auto otherTeam = installSigned("KlarboxHelper", "other-team", "--team AAAAAAAAAA");
    const std::string notIt = "What answers is not the service.";
    const std::string another = "What answers is not the service but another signed program.";
    struct Case {
        std::string claimed; ///< to be its executable
        std::string replier;
        std::string reason;
        std::optional<uid_t> user = std::nullopt;
    };
    std::vector<Case> cases{
        {unsignedHelper, "", "The service is not correctly signed: There is no signature"},
        {otherTeam, "", another},
        {application_, "", another},
        {helperPath_, "child", notIt},
        {helperPath_, "itself", ""},
    };
    if (hasUsers()) {
        cases.push_back({helperPath_, "", notIt, ann});
        cases.push_back({helperPath_, std::to_string(ann), notIt});
    }
    for (const auto &[claimed, replier, reason, user] : cases) {
        startImpostor(claimed, replier, user);
        const auto outcome = remove("/Library/Caches/secret");
        EXPECT_EQ(outcome.exitCode, reason.empty() ? 0 : 1) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(reason));
        EXPECT_EQ(outcome.err.starts_with("The Klarbox helper isn’t the genuine one. "),
                  !reason.empty());
        EXPECT_EQ(impostor_->finish().out == "0\n", replier.empty())
            << "bytes were told to " << claimed;
    }
}

TEST_F(Client, waitsNoLongerThanThereIsAnAnswerToBeHad) {
    const auto client = std::make_shared<HelperClient>();
    const auto request = PrivilegedRequest::removeItem("/Library/Caches/x");
    startImpostor(helperPath_);
    EXPECT_THROW(TimeLimitedPrivilegedRemover(client, 300ms).perform(request),
                 TimeLimitedPrivilegedRemover::TimedOut);
    EXPECT_NE(impostor_->readLine(), "0");
    EXPECT_EQ(impostor_->readLine(), "hung up"); // while this process lives on

    startImpostor(helperPath_);
    auto answer = std::async(std::launch::async, [&] { return client->perform(request); });
    EXPECT_NE(impostor_->readLine(), "0");
    impostor_->signal(SIGKILL);
    EXPECT_THROW(answer.get(), XPCError);
}

TEST_F(Client, saysWhyItCannotAskTheHelper) {
    EXPECT_THAT(remove("/Library/Caches/x").err,
                StartsWith("The Klarbox helper can’t be reached. The service cannot be reached: No "
                           "such file or directory. “klarbox helper” tells more."));
    startHelper();
    stopHelper();
    EXPECT_THAT(remove("/Library/Caches/x").err, HasSubstr("Connection refused"));
    startHelper();
    std::filesystem::remove(client_ + ".cms");
    const auto turnedAway = remove("/Library/Caches/x");
    EXPECT_EQ(turnedAway.exitCode, 1);
    EXPECT_THAT(turnedAway.err,
                StartsWith("The Klarbox helper doesn’t accept this copy of klarbox."));
    EXPECT_THAT(journal_->messages("requests"), IsEmpty());
}

TEST_F(Client, tellsTheStateOfTheHelperAndHowToMendIt) {
    // Whether it is installed, reachable, signed and usable, and what else is said.
    const auto expectStatus = [&](const std::string &executable, const std::string &answers,
                                  const std::string &rest) {
        const auto answer = words(answers);
        const auto outcome = run({.arguments = {client_, "status", executable}});
        EXPECT_EQ(outcome.exitCode, answer[3] == "yes" ? 0 : 1) << outcome.err;
        EXPECT_THAT(outcome.out,
                    StartsWith(fmt::format(
                        "Installed   {}\nReachable   {}\nSigned      {}\nUsable      {}\n{}",
                        answer[0], answer[1], answer[2], answer[3], rest)));
    };
    const std::string version = "Version     1.0.0\n";
    expectStatus("/opt/klarbox/none", "no no no no",
                 "\nThe helper is not installed.\nInstall the package klarbox.");
    expectStatus(helperPath_, "yes no yes no",
                 version + "\nThe service cannot be reached: No such file or directory.\nStart it: "
                           "sudo systemctl enable --now app.klarbox.Klarbox.SystemHelper.socket");
    expectStatus(
        install("KlarboxHelper", "unsigned"), "yes no no no",
        "\nThere is no signature “/opt/klarbox/unsigned.cms”.\nInstall the package klarbox "
        "again.");
    startHelper();
    expectStatus(helperPath_, "yes yes yes yes", version);
    expectStatus("/opt/klarbox/none", "no yes yes yes", version); // it runs from elsewhere
    helper_->signal(SIGSTOP);
    expectStatus(helperPath_, "yes yes no no",
                 "\nThe service does not answer.\nRestart it: sudo systemctl restart");
    helper_->signal(SIGCONT);
    std::filesystem::rename(client_ + ".cms", "/tmp/client.cms");
    expectStatus(helperPath_, "yes yes yes no",
                 version + "\nThere is no signature “/opt/klarbox/client.cms”.\nUse the installed "
                           "klarbox, or install the package klarbox again.");
    std::filesystem::rename("/tmp/client.cms", client_ + ".cms");
    std::filesystem::remove(helperPath_ + ".cms");
    expectStatus(helperPath_, "yes yes no no",
                 "\nThe service is not correctly signed: There is no signature");
}

TEST_F(Client, hasNothingRemovedHereThatALinkOfAnotherDiskLeadsTo) {
    const auto klarbox = installSigned("klarbox", "klarbox");
    makeClientGroup();
    const std::string host = "/private/var/log/nginx/deep";
    const std::string disk = "/tmp/disk"; // the home of somebody else is an enclosure already
    std::filesystem::create_directories(disk + "/private/var");
    std::filesystem::create_directory_symlink(host, disk + "/private/var/log");
    std::filesystem::create_directory_symlink("/", "/Users/ann/self");
    startHelper();
    std::vector<std::optional<uid_t>> users{std::nullopt};
    if (whyNoInstalledClients().empty()) {
        users.emplace_back(ann);
    }
    for (const auto user : users) {
        check(!user || ::chown(disk.c_str(), *user, *user) == 0, disk);
        const auto clean = [&](const std::string &options) {
            const auto group = user ? std::optional(clientGroup) : std::nullopt;
            return run({.arguments = words(klarbox +
                                           " clean --home /Users/ann --minimum-size 0 "
                                           "--category system-logs " +
                                           options),
                        .user = user,
                        .effectiveGroup = group});
        };
        const auto onDisk = "--disk " + disk + " --item system-logs:" + disk +
                            "/private/var/log/access.log.0.gz " + "--item system-logs:" + disk +
                            "/Library/Logs/its-own ";
        writeFile(host + "/access.log.0.gz", "x");
        writeFile(disk + "/Library/Logs/its-own/x", "x");
        EXPECT_THAT(clean(onDisk + "--dry-run").out,
                    HasSubstr(user ? "of the system of another disk" : "Of the system: 2 items"));
        const auto other = clean(onDisk + "--yes");
        EXPECT_EQ(other.exitCode, 1) << other.out << other.err;
        EXPECT_TRUE(exists(host + "/access.log.0.gz")) << other.out;
        EXPECT_EQ(exists(disk + "/Library/Logs/its-own/x"), user.has_value());
        // A link to this machine's own disk is this machine.
        const auto own = clean("--disk /Users/ann/self --yes --item "
                               "system-logs:/private/var/log/nginx");
        EXPECT_EQ(own.exitCode, 0) << own.out << own.err;
        EXPECT_FALSE(exists(host + "/access.log.0.gz"));
        EXPECT_EQ(journal_->messages("requests", user ? 1 : 0).size(), user ? 1U : 0U); // for that
    }
}

TEST_F(Client, showsThatTheHelperIsStillWorking) {
    if (!hasUsers()) {
        GTEST_SKIP() << "needs root, for an ordinary user beside it";
    }
    const auto klarbox = install("klarbox", "klarbox");
    writeFile("/Library/Caches/com.example.tool/a", "x");
    startImpostor(helperPath_, "itself 5");
    const auto run =
        test::run({.arguments = {"/usr/bin/script", "-qec",
                                 klarbox + " clean --yes --home /Users/ann --color never "
                                           "--minimum-size 0 --item "
                                           "system-caches:com.example.tool",
                                 "/dev/null"},
                   .user = ann,
                   .environment = {"TERM=xterm", "SHELL=/bin/sh"}});
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const std::string begin = "\rCleaning 1 of 1: com.example.tool";
    const std::string remark = " · the Klarbox helper is still working (0:0";
    // A line each second, the first after what people expect anyway, and none once it is over.
    EXPECT_THAT(run.out, HasSubstr(begin + "\x1b[K" + begin + remark + "3)\x1b[K" + begin + remark +
                                   "4)\x1b[K"));
    const auto last = run.out.rfind(begin);
    EXPECT_THAT(run.out.substr(last), StartsWith(begin + "\x1b[K\r\x1b[K✓ com.example.tool"));
}

TEST_F(Client, ofAnOrdinaryUserCleansSystemFilesAndGivesItsGroupToNoTool) {
    if (const auto reason = whyNoInstalledClients(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const auto klarbox = installSigned("klarbox", "klarbox");
    makeClientGroup();
    writeFile("/Library/Caches/com.example.tool/a/b", std::string(5000, 'x'), 0600);
    writeFile("/Library/Caches/com.example.tool/.git/config", "kept");
    writeFile("/Library/Caches/com.example.other/c", "kept");
    writeFile("/private/var/log/system.log.0.gz", "x", 0600);
    writeFile("/opt/klarbox/brew", R"(#!/bin/sh
set -- $(cat /proc/$$/stat) $(grep ^Gid /proc/$$/status) $(grep ^Groups /proc/$$/status)
[ $1 = $6 ] && session=own
shift 52
echo $session $* >>/tmp/started
)",
              0755);
    writeFile("/tmp/environment.json", R"({"tools": {"brew": "/opt/klarbox/brew"}})");
    const auto clean = [&] {
        return run({.arguments = words(klarbox + " clean --yes --json --home /Users/ann "
                                                 "--environment /tmp/environment.json "
                                                 "--minimum-size 0 --item "
                                                 "system-caches:com.example.tool --item "
                                                 "system-logs:/private/var/log/system.log.0.gz"),
                    .user = ann,
                    .effectiveGroup = clientGroup});
    };

    const auto without = clean();
    EXPECT_EQ(without.exitCode, 1) << without.err;
    EXPECT_THAT(without.out,
                HasSubstr("System files need the Klarbox helper. Turn it on, then clean again."));

    startHelper();
    const auto cleaned = clean();
    EXPECT_EQ(cleaned.exitCode, 1) << cleaned.out << cleaned.err; // one entry stays
    const auto report = json::parse(cleaned.out);
    EXPECT_EQ(report["freedBytes"], 8192 + 4096);
    EXPECT_FALSE(exists("/Library/Caches/com.example.tool/a"));
    EXPECT_TRUE(exists("/Library/Caches/com.example.tool/.git/config"));
    EXPECT_TRUE(exists("/Library/Caches/com.example.other/c"));
    EXPECT_FALSE(exists("/private/var/log/system.log.0.gz"));
    EXPECT_THAT(
        journal_->messages("requests", 2),
        testing::UnorderedElementsAre(
            "removeContents /Library/Caches/com.example.tool: removed 1, failed 1, 8192 bytes",
            "removeItem /private/var/log/system.log.0.gz: removed 1, failed 0, 4096 bytes"));
    EXPECT_THAT(readFile("/tmp/started"),
                testing::MatchesRegex("(own Gid: 1000 1000 1000 1000 Groups:\n)+"));
}

} // namespace
} // namespace klarbox::test
