#pragma once

#include <chrono>
#include <map>
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

/// What a program said and how it ended (128 and the signal's number when it was killed).
struct Outcome {
    int exitCode;
    std::string out;
    std::string err;
};

struct Launch {
    std::vector<std::string> arguments; ///< beginning with the program's path
    std::optional<uid_t> user = std::nullopt;
    std::optional<gid_t> effectiveGroup = std::nullopt; ///< as a set-group-ID program gets it
    std::vector<std::string> environment = {};
};

/// A running program, ended with the object.
class Running {
public:
    explicit Running(const Launch &launch);
    ~Running();
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

    pid_t pid() const { return pid_; }
    /// One line of its output; empty at its end.
    std::string readLine();
    /// Writes one line to its input.
    void writeLine(const std::string &line) const;
    /// Closes its input and waits for its end.
    Outcome finish();
    /// Sends a signal.
    void signal(int number) const;

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int error_ = -1;
    int reported_ = -1; ///< exit code, once known
};

Outcome run(const Launch &launch);

/// The entries that programs send to the system's journal, for as long as it lives.
class Journal {
public:
    using Entry = std::map<std::string, std::string>;

    Journal();
    ~Journal();
    /// The messages of one category, once there are at least `count` of them (or after a while).
    std::vector<std::string> messages(std::string_view category, std::size_t count) const;
    std::vector<Entry> entries() const;

private:
    int socket_;
    mutable std::mutex mutex_;
    std::vector<std::string> packets_; ///< as they came
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
    static void sign(const std::string &file, const std::vector<std::string> &options = {});
    void startHelper();
    /// Also checks that it ended as daemons do and was quiet.
    void stopHelper();
    /// What the signed foreign client gets for these selectors and paths in turn.
    Outcome ask(std::vector<std::string> selectorsAndPaths,
                std::optional<uid_t> user = std::nullopt) const;
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

/// Whether the programs are slowed down by a sanitizer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = false;
#endif

void writeFile(const std::string &path, std::string_view content, mode_t mode = 0644);
std::string readFile(const std::string &path);
bool exists(const std::string &path);
/// Removes whatever can be removed below a folder.
void emptyFolder(const std::string &path);

/// Waits until something holds; false when it does not come to hold in time.
template <typename Condition>
bool eventually(const Condition &condition,
                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace klarbox::test
