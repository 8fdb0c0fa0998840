#include "Tests/EndToEnd/World.hpp"

#include <csignal>
#include <dlfcn.h>
#include <filesystem>
#include <unistd.h>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int served = 0;
constexpr int turnedAway = 3;

class Peers : public EndToEnd {
protected:
    const std::string victim = "/Library/Caches/victim";

    /// What a program gets for being started in a way that has it remove `victim`: 0 served, 3
    /// turned away. Checks that the file went exactly when it was served.
    int outcomeOf(const Launch &launch) {
        writeFile(victim, "x");
        const auto outcome = run(launch);
        EXPECT_EQ(exists(victim), outcome.exitCode != served) << outcome.out << outcome.err;
        return outcome.exitCode;
    }
    /// A signed program that does not declare itself a client.
    static std::string installUndeclared() {
        const auto program = install("packet-client", "undeclared");
        EXPECT_EQ(shell("sed -i 's/__xpc_client/__xpc_clienx/' " + program).exitCode, 0);
        sign(program);
        return program;
    }
    int asks(const std::string &program) {
        return outcomeOf({.arguments = {program, "ask", removeItem, victim}});
    }
};

// What signatures are good is for other tests.
TEST_F(Peers, areServedOnlyWhenSignedAsTheApplication) {
    const auto unsignedClient = install("packet-client", "unsigned");
    const auto otherTeam = installSigned("packet-client", "other-team", "--team AAAAAAAAAA");
    startHelper();
    EXPECT_EQ(asks(unsignedClient), turnedAway);
    EXPECT_EQ(asks(otherTeam), turnedAway);
    std::filesystem::rename("/etc/klarbox/anchors/test.pem", "/tmp/test.pem");
    EXPECT_EQ(asks(application_), turnedAway);
    std::filesystem::rename("/tmp/test.pem", "/etc/klarbox/anchors/test.pem");
    EXPECT_EQ(asks(application_), served);
}

TEST_F(Peers, areTheProgramsThatWereVerifiedAndNoOthers) {
    const auto unsignedClient = install("packet-client", "unsigned");
    installSigned(std::filesystem::canonical("/usr/bin/python3"), "python");
    const auto script = "/opt/klarbox/script";
    writeFile(script,
              fmt::format(R"(#!/opt/klarbox/python
import socket, sys, time
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.connect('{}')
time.sleep(0.5)
try:
    s.send(b'{}\0{}')
    sys.exit(0 if s.recv(65536) else 3)
except OSError: sys.exit(3)
)",
                          serviceSocket, removeItem, victim),
              0755);
    sign(script);
    startHelper();
    const auto &a = application_;
    const auto asking = fmt::format(" {} {}", removeItem, victim);
    const auto continuing = fmt::format(" {} {} continues{}", victim, unsignedClient, asking);
    const std::pair<const char *, std::string> cases[] = {
        {"a signed script that a signed interpreter runs", script},
        {"a child of a verified process", a + " heir staying" + asking},
        {"a child of a process that ended", a + " heir ended" + asking},
        {"a process with the number of one that ended", a + " heir recycled" + asking},
        {"what a program became before it was verified", a + " turns silent" + continuing},
        {"what a program became before it asked", a + " turns welcome" + continuing},
        {"what a program became after an answer", a + " turns answered" + continuing},
        {"one that became the verified program again",
         fmt::format("{0} turns answered {1} {2} turns inheriting {1} {0} reply", a, victim,
                     unsignedClient)},
    };
    for (const auto &[what, command] : cases) {
        constexpr int unsupported = 77;
        const int outcome = outcomeOf({.arguments = words(command)});
        EXPECT_TRUE(outcome == turnedAway || (outcome == unsupported && !hasUsers()))
            << what << ": " << outcome;
    }
    EXPECT_EQ(asks(application_), served);
}

TEST_F(Peers, areNotServedWithWhatWasSentBeforeTheirVerification) {
    const auto unsignedClient = install("packet-client", "unsigned");
    const auto undeclared = installUndeclared();
    startHelper();
    EXPECT_EQ(outcomeOf({.arguments = words(fmt::format("{} ask-later 500 {} {}", undeclared,
                                                        removeItem, victim))}),
              served);
    for (const auto &verified : {application_, undeclared}) {
        for (const auto &asking : {unsignedClient, verified}) {
            SCOPED_TRACE(asking + ", then " + verified);
            writeFile(victim, "x");
            helper_->signal(SIGSTOP);
            Running peer({.arguments = words(fmt::format("{} turns asking {} {} reply", asking,
                                                         victim, verified))});
            const auto commandLine = "/proc/" + std::to_string(peer.pid()) + "/cmdline";
            ASSERT_TRUE(eventually(
                [&] { return readFile(commandLine).find("reply") == verified.size() + 1; }));
            helper_->signal(SIGCONT);
            EXPECT_EQ(peer.finish().exitCode, turnedAway);
            EXPECT_TRUE(exists(victim));
        }
    }
}

TEST_F(Peers, thatAreInstalledClientsMustHaveTheGroup) {
    if (const auto reason = whyNoInstalledClients(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const auto genuine = installSigned("helper-client", "genuine");
    makeClientGroup();
    startHelper();
    const auto started = [&](const char *mode, std::optional<gid_t> group) {
        return Launch{.arguments = {genuine, mode}, .user = ann, .effectiveGroup = group};
    };
    const auto asks = [&](std::optional<gid_t> group) {
        writeFile(victim, "x");
        Running client(started("removeItem", group));
        client.writeLine(victim);
        const auto outcome = client.finish();
        EXPECT_EQ(exists(victim), outcome.exitCode != 0) << outcome.err;
        return outcome.exitCode == 0;
    };
    EXPECT_FALSE(asks(std::nullopt));
    EXPECT_FALSE(asks(clientGroup + 1));
    EXPECT_TRUE(asks(clientGroup));
    // A program that declares nothing is not held to it.
    const auto undeclared = installUndeclared();
    EXPECT_EQ(
        outcomeOf({.arguments = {undeclared, "ask-later", "500", removeItem, victim}, .user = ann}),
        served);

    // Nobody else of the same user gets at a client with the group.
    Dl_info libc{};
    ASSERT_NE(::dladdr(reinterpret_cast<void *>(&::getpid), &libc), 0);
    const std::string library =
        std::filesystem::canonical(libc.dli_fname).replace_filename("libutil.so.1");
    ASSERT_TRUE(exists(library));
    auto launch = started("wait", clientGroup);
    launch.environment = {"LD_PRELOAD=" + library};
    const Running client(launch);
    const auto folder = "/proc/" + std::to_string(client.pid());
    ASSERT_TRUE(eventually([&] { return readFile(folder + "/cmdline").starts_with(genuine); }));
    EXPECT_TRUE(eventually([&] { return !readFile(folder + "/maps").empty(); }));
    const Launch look{.arguments = {"/usr/bin/cat", folder + "/environ"}, .user = ann};
    EXPECT_NE(run(look).exitCode, 0);
    EXPECT_THAT(readFile(folder + "/maps"), Not(HasSubstr(library)));
}

} // namespace
} // namespace klarbox::test
