#include "KlarboxKit/Platform/CodeSigning.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

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

/// Why the program's signature is not accepted, or who it is.
std::string whatIsWrongWith(const std::string &program) {
    try {
        const auto information = Code::at(FileURL(program)).signingInformation({});
        return information.identifier + " of " + information.teamID;
    } catch (const PlatformError &error) {
        return error.message();
    }
}

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
    int asks(const std::string &program) {
        return outcomeOf({.arguments = {program, "ask", removeItem, victim}});
    }
};

TEST_F(Peers, areServedOnlyWhenSignedAsTheApplication) {
    // What a shell does with $f, a copy of the client. What signatures are good is for other tests.
    const struct {
        const char *what;
        const char *preparation;
        const char *reason;
    } cases[] = {
        {"no signature", "", "There is no signature"},
        {"another team", "$sign --team AAAAAAAAAA $f", "app.klarbox.Klarbox of AAAAAAAAAA"},
        {"another identifier", "sed -i 's/Klarbox</Klarbax</' $f; $sign $f",
         "app.klarbox.Klarbax of K7L4R9B0X2"},
        {"one byte changed after signing", "$sign $f; sed -i 's/usage: /usage; /' $f",
         "is not valid"},
        {"an anchor that is gone", "$sign $f; mv /etc/klarbox/anchors/test.pem /tmp",
         "unable to get local issuer certificate"},
    };
    startHelper();
    int number = 0;
    for (const auto &[what, preparation, reason] : cases) {
        SCOPED_TRACE(what);
        const auto program = install("packet-client", "copy-" + std::to_string(++number));
        const auto prepared =
            shell("set -e; export LC_ALL=C; cd /opt/klarbox; f=" + program +
                  "; sign='/source/Packaging/sign --authority /tmp/authority'; " + preparation);
        ASSERT_EQ(prepared.exitCode, 0) << prepared.out;
        EXPECT_EQ(asks(program), turnedAway);
        EXPECT_THAT(whatIsWrongWith(program), HasSubstr(reason));
    }
    std::filesystem::rename("/tmp/test.pem", "/etc/klarbox/anchors/test.pem");
    EXPECT_EQ(asks(application_), served);
}

TEST_F(Peers, areTheProgramsThatWereVerifiedAndNoOthers) {
    const auto unsignedClient = install("packet-client", "unsigned");
    const auto python = install(std::filesystem::canonical("/usr/bin/python3"), "python");
    sign(python);
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
    const auto &u = unsignedClient;
    const std::pair<const char *, std::string> cases[] = {
        {"a signed script that a signed interpreter runs", script},
        {"a child of a verified process", a + " child stays " + victim},
        {"a child of a process that ended", a + " child ends " + victim},
        {"a process with the number of one that ended", a + " recycled " + victim},
        {"what a program became before it was verified",
         fmt::format("{} turns silent {} {} continues", a, victim, u)},
        {"what a program became before it asked",
         fmt::format("{} turns welcome {} {} continues", a, victim, u)},
        {"what a program became after an answer",
         fmt::format("{} turns answered {} {} continues", a, victim, u)},
        {"one that became the verified program again",
         fmt::format("{} turns answered {} {} continues-as {}", a, victim, u, a)},
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
    const auto undeclared = install("packet-client", "undeclared");
    ASSERT_EQ(shell("sed -i 's/__xpc_client/__xpc_clienx/' " + undeclared).exitCode, 0);
    sign(undeclared);
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
    const auto genuine = install("helper-client", "genuine");
    sign(genuine);
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
    const auto undeclared = install("packet-client", "undeclared");
    ASSERT_EQ(shell("sed -i 's/__xpc_client/__xpc_clienx/' " + undeclared).exitCode, 0);
    sign(undeclared);
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
