#include "Tests/EndToEnd/World.hpp"

#include <csignal>
#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace klarbox::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class Client : public EndToEnd {
protected:
    void SetUp() override {
        EndToEnd::SetUp();
        if (!IsSkipped()) {
            client_ = install("helper-client", "client");
            sign(client_);
        }
    }

    /// What the application's client says when it is to remove one file.
    Outcome remove(const std::string &path) const {
        Running client({.arguments = {client_, "removeItem"}});
        client.writeLine(path);
        return client.finish();
    }

    std::string client_;
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

TEST_F(Client, tellsNothingToWhoeverIsNotTheHelper) {
    const auto unsignedHelper = install("KlarboxHelper", "unsigned");
    const auto otherTeam = install("KlarboxHelper", "other-team");
    sign(otherTeam, "--team AAAAAAAAAA");
    const std::string another = "What answers is not the service but another signed program.";
    std::vector<std::tuple<std::string, std::optional<uid_t>, std::string>> cases{
        {unsignedHelper, std::nullopt,
         "The service is not correctly signed: There is no signature"},
        {otherTeam, std::nullopt, another},
        {application_, std::nullopt, another},
    };
    if (hasUsers()) {
        cases.emplace_back(helperPath_, ann, "What answers is not the service.");
    }
    for (const auto &[claimed, user, reason] : cases) {
        // The folder lets anybody put a socket into it, as no machine's would.
        std::filesystem::create_directories("/run/klarbox");
        std::filesystem::permissions("/run/klarbox", std::filesystem::perms::all);
        Running impostor(foreign("impostor " + claimed, user));
        ASSERT_EQ(impostor.readLine(), "listening");
        const auto outcome = remove("/Library/Caches/secret");
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_THAT(outcome.err, StartsWith("The Klarbox helper isn’t the genuine one. " + reason));
        EXPECT_EQ(impostor.finish().out, "0\n") << "bytes were told to " << claimed;
    }
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

TEST_F(Client, ofAnOrdinaryUserCleansSystemFiles) {
    if (const auto reason = whyNoInstalledClients(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const auto klarbox = install("klarbox", "klarbox");
    sign(klarbox);
    makeClientGroup();
    writeFile("/Library/Caches/com.example.tool/a/b", std::string(5000, 'x'), 0600);
    writeFile("/Library/Caches/com.example.tool/.git/config", "kept");
    writeFile("/Library/Caches/com.example.other/c", "kept");
    writeFile("/private/var/log/system.log.0.gz", "x", 0600);
    const auto clean = [&](std::optional<gid_t> group) {
        return run({.arguments = words(klarbox + " clean --yes --json --home /Users/ann "
                                                 "--minimum-size 0 --item "
                                                 "system-caches:com.example.tool --item "
                                                 "system-logs:/private/var/log/system.log.0.gz"),
                    .user = ann,
                    .effectiveGroup = group});
    };

    const auto without = clean(clientGroup);
    EXPECT_EQ(without.exitCode, 1) << without.err;
    EXPECT_THAT(without.out,
                HasSubstr("System files need the Klarbox helper. Turn it on, then clean again."));

    startHelper();
    const auto notInstalled = clean(std::nullopt);
    EXPECT_EQ(notInstalled.exitCode, 1) << notInstalled.err;
    EXPECT_THAT(notInstalled.out, HasSubstr("doesn’t accept this copy of klarbox"));
    EXPECT_TRUE(exists("/private/var/log/system.log.0.gz"));

    const auto cleaned = clean(clientGroup);
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
}

} // namespace
} // namespace klarbox::test
