#include "KlarboxKit/Platform/CodeSigning.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include "Tests/EndToEnd/World.hpp"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

namespace klarbox::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::HasSubstr;

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

} // namespace
} // namespace klarbox::test
