#include "KlarboxKit/Platform/CodeSigning.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include "Tests/EndToEnd/World.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int served = 0;
constexpr int turnedAway = 3;

/// Replaces one text in a file by another of the same length.
void patch(const std::string &path, const std::string &text, const std::string &replacement) {
    ASSERT_EQ(text.size(), replacement.size());
    auto content = readFile(path);
    const auto at = content.find(text);
    ASSERT_NE(at, std::string::npos) << path;
    for (auto next = at; next != std::string::npos; next = content.find(text, next)) {
        content.replace(next, text.size(), replacement);
    }
    writeFile(path, content, 0755);
}

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
    struct Case {
        const char *what;
        std::function<void(const std::string &)> prepare; ///< given a copy of the client
        std::string reason;
    };
    const auto signedBy = [](const std::string &authority, const std::string &file,
                             std::vector<std::string> options = {}) {
        options.insert(options.end(), {"--authority", authority});
        sign(file, options);
    };
    const std::vector<Case> cases{
        {"no signature", [](const auto &) {}, "There is no signature"},
        {"an empty one", [](const auto &file) { writeFile(file + ".cms", ""); }, "no CMS message"},
        {"noise", [](const auto &file) { writeFile(file + ".cms", "0\x82\x01\x01 noise"); },
         "no CMS message"},
        {"another program's",
         [&](const auto &file) { std::filesystem::copy_file(helperPath_ + ".cms", file + ".cms"); },
         "is not valid"},
        {"a longer one",
         [&](const auto &file) {
             writeFile(file + ".cms", readFile(application_ + ".cms") + "more");
         },
         "no CMS message"},
        {"a link to the right one",
         [&](const auto &file) {
             std::filesystem::create_symlink(application_ + ".cms", file + ".cms");
         },
         "There is no signature"},
        {"a pipe", [](const auto &file) { ASSERT_EQ(::mkfifo((file + ".cms").c_str(), 0666), 0); },
         "There is no signature"},
        {"another team",
         [](const auto &file) {
             sign(file, {"--team", "AAAAAAAAAA"});
         },
         "app.klarbox.Klarbox of AAAAAAAAAA"},
        {"another authority", [&](const auto &file) { signedBy("/tmp/other", file); },
         "unable to get local issuer certificate"},
        {"another identifier",
         [](const auto &file) {
             patch(file, "app.klarbox.Klarbox<", "app.klarbox.Klarbax<");
             sign(file);
         },
         "app.klarbox.Klarbax of K7L4R9B0X2"},
        {"no identifier",
         [](const auto &file) {
             patch(file, "__info_plist", "__info_plisd");
             sign(file);
         },
         "no information property list"},
        {"one byte changed after signing",
         [](const auto &file) {
             sign(file);
             patch(file, "usage: packet-client", "usage: packet-cliend");
         },
         "is not valid"},
        {"a byte appended after signing",
         [](const auto &file) {
             sign(file);
             std::ofstream(file, std::ios::app) << "x";
         },
         "is not valid"},
        {"an expired certificate",
         [&](const auto &file) {
             std::filesystem::copy("/tmp/authority", "/tmp/expired");
             std::filesystem::remove("/tmp/expired/signer-K7L4R9B0X2.pem");
             signedBy("/tmp/expired", file, {"--days", "0"});
             std::this_thread::sleep_for(std::chrono::milliseconds(1100));
         },
         "certificate has expired"},
        {"an anchor that is gone",
         [](const auto &file) {
             sign(file);
             std::filesystem::rename("/etc/klarbox/anchors/test.pem", "/tmp/test.pem");
         },
         "unable to get local issuer certificate"},
    };
    startHelper();
    int number = 0;
    for (const auto &[what, prepare, reason] : cases) {
        SCOPED_TRACE(what);
        const auto program = install("packet-client", "copy-" + std::to_string(++number));
        prepare(program);
        EXPECT_EQ(asks(program), turnedAway);
        EXPECT_THAT(whatIsWrongWith(program), HasSubstr(reason));
    }
    std::filesystem::rename("/tmp/test.pem", "/etc/klarbox/anchors/test.pem");
    EXPECT_EQ(asks(application_), served);
}

TEST_F(Peers, areTheProcessesThatConnectedAndNoOthers) {
    const auto unsignedClient = install("packet-client", "unsigned");
    const auto genuine = install("helper-client", "genuine");
    sign(genuine);
    const auto python = install(std::filesystem::canonical("/usr/bin/python3"), "python");
    sign(python);
    const auto script = "/opt/klarbox/script";
    writeFile(script,
              "#!/opt/klarbox/python\n"
              "import socket, sys\n"
              "s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)\n"
              "s.connect('" +
                  std::string(serviceSocket) +
                  "')\n"
                  "s.send(b'" +
                  removeItem + "\\0" + victim +
                  "')\n"
                  "try: sys.exit(0 if s.recv(65536) else 3)\n"
                  "except ConnectionResetError: sys.exit(3)\n",
              0755);
    sign(script);
    startHelper();
    const std::vector<std::pair<const char *, std::vector<std::string>>> cases{
        {"a signed script that a signed interpreter runs", {script}},
        {"a child of a verified process", {application_, "child", victim}},
        {"a child of a process that ended", {application_, "orphan", victim}},
        {"a process that became a genuine client after it asked",
         {unsignedClient, "disguise", victim, genuine}},
    };
    for (const auto &[what, arguments] : cases) {
        EXPECT_EQ(outcomeOf({.arguments = arguments}), turnedAway) << what;
    }
    EXPECT_EQ(asks(application_), served);
}

TEST_F(Peers, thatAreInstalledClientsMustHaveTheGroup) {
    if (const auto reason = whyNoInstalledClients(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const auto genuine = install("helper-client", "genuine");
    sign(genuine);
    makeClientGroup();
    startHelper();
    const auto asks = [&](std::optional<gid_t> group) {
        writeFile(victim, "x");
        Running client(
            {.arguments = {genuine, "removeItem"}, .user = ann, .effectiveGroup = group});
        client.writeLine(victim);
        const auto outcome = client.finish();
        EXPECT_EQ(exists(victim), outcome.exitCode != 0) << outcome.err;
        return outcome.exitCode == 0;
    };
    EXPECT_FALSE(asks(std::nullopt));
    EXPECT_FALSE(asks(clientGroup + 1));
    EXPECT_TRUE(asks(clientGroup));
    EXPECT_EQ(ask({removeItem, victim}, ann).exitCode, served); // is none of these clients

    // Nobody else of the same user gets at a client with the group.
    Dl_info libc{};
    ASSERT_NE(::dladdr(reinterpret_cast<void *>(&::getpid), &libc), 0);
    const std::string library =
        std::filesystem::canonical(libc.dli_fname).replace_filename("libutil.so.1");
    ASSERT_TRUE(exists(library));
    const Launch launch{.arguments = {genuine, "wait"},
                        .user = ann,
                        .effectiveGroup = clientGroup,
                        .environment = {"LD_PRELOAD=" + library}};
    const Running client(launch);
    const auto folder = "/proc/" + std::to_string(client.pid());
    const auto mayLook = [&] {
        return run({.arguments = {"/usr/bin/cat", folder + "/environ"}, .user = ann}).exitCode == 0;
    };
    ASSERT_TRUE(eventually([&] { return readFile(folder + "/cmdline").starts_with(genuine); }));
    EXPECT_TRUE(eventually([&] { return !readFile(folder + "/maps").empty(); }));
    EXPECT_FALSE(mayLook());
    EXPECT_THAT(readFile(folder + "/maps"), Not(HasSubstr(library)));
}

/// Overwrites the last occurrence of a text in a file back and forth for as long as it lives.
class Flicker {
public:
    Flicker(const std::string &path, const std::string &text, const std::string &replacement)
        : thread_([=](const std::stop_token &stop) {
              const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
              const auto at = static_cast<off_t>(readFile(path).rfind(text));
              const auto size = static_cast<ssize_t>(text.size());
              std::minstd_rand random;
              // From much shorter to somewhat longer than a verification takes.
              std::uniform_int_distribution<long> pause(0, 16'000);
              while (!stop.stop_requested()) {
                  for (const auto &written : {replacement, text}) {
                      EXPECT_EQ(::pwrite(fd, written.data(), written.size(), at), size);
                      std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
                  }
              }
              ::close(fd);
          }) {}

private:
    std::jthread thread_;
};

TEST_F(Peers, areWhatWasVerifiedAlsoWhenTheirFilesChangeMeanwhile) {
    const auto path = install("helper-client", "flickering");
    sign(path);
    const auto genuine = Code::at(FileURL(path)).signingInformation({});
    ASSERT_EQ(genuine.identifier, "app.klarbox.Klarbox");
    ASSERT_TRUE(genuine.isXPCClient);
    const std::vector<std::pair<std::string, std::string>> changes{
        {"app.klarbox.Klarbox<", "app.klarbox.Klarbax<"}, {"__xpc_client", "__xpc_clienx"}};
    for (const auto &[text, replacement] : changes) {
        int verified = 0;
        int rejected = 0;
        const Flicker flicker(path, text, replacement);
        EXPECT_TRUE(eventually([&] {
            try {
                EXPECT_EQ(Code::at(FileURL(path)).signingInformation({}), genuine);
                ++verified;
            } catch (const PlatformError &) {
                ++rejected;
            }
            return verified > 20 && rejected > 50;
        })) << verified
            << " " << rejected;
    }
}

} // namespace
} // namespace klarbox::test
