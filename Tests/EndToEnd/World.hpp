#pragma once

#include "Tests/Support/Programs.hpp"
#include "Tests/Support/Sanitizers.hpp"

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {

/// An ordinary user of the world.
inline constexpr uid_t ann = 1000;
/// The group that an installed application runs with, in worlds that have it.
inline constexpr gid_t clientGroup = 990;
/// A file system of its own inside the helper's folders.
inline constexpr const char *mountPoint = "/Library/Developer/CoreSimulator/Caches/dyld/mounted";

inline const std::string removeItem = "removeItemAtPath:withReply:";
inline const std::string removeContents = "removeContentsOfDirectoryAtPath:withReply:";
inline constexpr const char *serviceSocket = "/run/klarbox/app.klarbox.Klarbox.SystemHelper.sock";

/// The entries that programs send to the system's journal, for as long as it lives.
class Journal {
public:
    Journal();
    /// The messages of one category, once there are at least `count` of them (or after a while).
    std::vector<std::string> messages(const std::string &category, std::size_t count = 0) const;
    /// All entries, each field a line.
    std::vector<std::string> entries() const;

private:
    UniqueFD socket_;
    mutable std::mutex mutex_;
    std::vector<std::string> entries_;
    std::jthread reader_;
};

/// A world of its own for each test: the built programs in /opt, signed by an authority whose
/// anchor is the only one in /etc/klarbox/anchors, the system folders empty.
class EndToEnd : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Copies a built program to /opt/klarbox/NAME and returns that path.
    static std::string install(const std::string &program, const std::string &name);
    /// Runs Packaging/sign on a file.
    static void sign(const std::string &file, const std::string &options = "");
    static std::string installSigned(const std::string &program, const std::string &name,
                                     const std::string &options = "");
    void startHelper();
    /// The helper's process that verifies peers.
    pid_t verifier() const;
    /// Also checks that it ended as daemons do and was quiet.
    void stopHelper();
    /// What the signed foreign client gets for these selectors and paths in turn.
    Outcome ask(std::vector<std::string> selectorsAndPaths,
                std::optional<uid_t> user = std::nullopt) const;
    /// Runs the signed foreign client with these words as its arguments.
    Launch foreign(const std::string &arguments, std::optional<uid_t> user = std::nullopt) const {
        return {.arguments = words(application_ + " " + arguments), .user = user};
    }
    /// Whether there is more than one user here.
    static bool hasUsers();
    /// Why installed clients of an ordinary user cannot be tested here; empty when they can.
    static std::string whyNoInstalledClients();
    /// Makes the group of the installed application known to the world.
    static void makeClientGroup();

    std::optional<Running> helper_;
    std::optional<Journal> journal_;
    std::string helperPath_;
    std::string application_; ///< the signed foreign client
};

void writeFile(const std::string &path, std::string_view content, mode_t mode = 0644);
std::string readFile(const std::string &path);
bool exists(const std::string &path);

} // namespace klarbox::test
