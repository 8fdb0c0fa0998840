#include "Tests/EndToEnd/World.hpp"

#include "Tests/Support/TemporaryTree.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/magic.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace klarbox::test {

namespace {

constexpr const char *usersMark = "KLARBOX_TEST_WORLD_USERS";
/// Made in the root of a world, and in no other.
constexpr const char *worldMark = "/.klarbox-test-world";

/// Whether the root folder is that of a world that lives in memory and ends with this process.
/// Nothing is made or emptied before this is known: outside it would be the machine's own.
bool isInWorld() {
    struct statfs root {};
    struct stat mark {};
    return ::statfs("/", &root) == 0 && root.f_type == TMPFS_MAGIC &&
           ::lstat(worldMark, &mark) == 0 && S_ISDIR(mark.st_mode);
}

} // namespace

Journal::Journal() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/systemd/journal/socket"};
    std::filesystem::create_directories("/run/systemd/journal");
    // How long the reader may take to see that it is to stop.
    const timeval patience{.tv_sec = 0, .tv_usec = 20'000};
    check(::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) == 0 &&
              ::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
              ::chmod(address.sun_path, 0666) == 0,
          "journal");
    reader_ = std::jthread([this](const std::stop_token &stop) {
        std::string packet(65536, '\0');
        while (!stop.stop_requested()) {
            const auto got = ::recv(socket_.get(), packet.data(), packet.size(), 0);
            if (got > 0) {
                // Read apart only when somebody asks: programs wait when this does not keep up.
                const std::lock_guard lock(mutex_);
                entries_.emplace_back(packet.data(), static_cast<std::size_t>(got));
            }
        }
    });
}

std::vector<std::string> Journal::entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
}

std::vector<std::string> Journal::messages(const std::string &category, std::size_t count) const {
    std::vector<std::string> found;
    eventually([&] {
        found.clear();
        for (const auto &entry : entries()) {
            constexpr std::string_view field = "MESSAGE=";
            if (const auto at = entry.find(field);
                entry.find("\nCATEGORY=" + category + "\n") != std::string::npos) {
                const auto message = entry.substr(at + field.size());
                found.push_back(message.substr(0, message.find('\n')));
            }
        }
        return found.size() >= count;
    });
    return found;
}

void writeFile(const std::string &path, std::string_view content, mode_t mode) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    check(::chmod(path.c_str(), mode) == 0, path);
}

std::string readFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string &path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

void EndToEnd::SetUp() {
    if (!isInWorld()) {
        GTEST_SKIP() << "bwrap cannot make a private world here";
    }
    helperPath_ = installSigned("KlarboxHelper", "KlarboxHelper");
    application_ = installSigned("packet-client", "application");
    const auto made = shell("set -e\n"
                            "mkdir -p /etc/klarbox/anchors /private/var/log /Users/ann "
                            "/Library/Caches /Library/Logs/DiagnosticReports\n"
                            "cp /tmp/authority/anchor.pem /etc/klarbox/anchors/test.pem\n"
                            "ln -s private/var /var\n"
                            "chmod 1777 /tmp /Library/Caches");
    ASSERT_EQ(made.exitCode, 0) << made.out;
    check(!hasUsers() || ::chown("/Users/ann", ann, ann) == 0, "/Users/ann");
    journal_.emplace();
}

void EndToEnd::TearDown() {
    if (!isInWorld()) {
        return;
    }
    if (helper_) {
        stopHelper();
    }
    journal_.reset();
    // What is mounted in the world stays.
    shell("rm -rf --one-file-system /etc/klarbox /etc/group /Library/* /opt/* /private /run/* "
          "/tmp/* /Users /var");
}

std::string EndToEnd::install(const std::string &program, const std::string &name) {
    std::filesystem::create_directories("/opt/klarbox");
    const std::string path = "/opt/klarbox/" + name;
    std::filesystem::copy_file(program.starts_with('/') ? program : "/programs/" + program, path);
    return path;
}

void EndToEnd::sign(const std::string &file, const std::string &options) {
    const auto outcome =
        shell("/source/Packaging/sign --authority /tmp/authority " + options + " " + file);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.out;
}

std::string EndToEnd::installSigned(const std::string &program, const std::string &name,
                                    const std::string &options) {
    auto path = install(program, name);
    sign(path, options);
    return path;
}

void EndToEnd::startHelper() {
    // One that ended leaves its socket behind; the next moves its own into that place.
    const auto socket = [] {
        struct stat st {};
        return ::stat(serviceSocket, &st) == 0 ? st.st_ino : 0;
    };
    const auto earlier = socket();
    helper_.emplace(Launch{.arguments = {helperPath_}});
    ASSERT_TRUE(eventually([&] { return socket() != 0 && socket() != earlier; }));
}

pid_t EndToEnd::verifier() const {
    // Whoever was answered knows that it works.
    run(foreign("ask " + removeItem + " /Library/Caches/none"));
    const auto pid = std::to_string(helper_->pid());
    return std::stoi(readFile("/proc/" + pid + "/task/" + pid + "/children"));
}

void EndToEnd::stopHelper() {
    helper_->signal(SIGTERM);
    const auto outcome = helper_->finish();
    helper_.reset();
    EXPECT_EQ(outcome.exitCode, 128 + SIGTERM);
    EXPECT_EQ(outcome.out + outcome.err, "") << "a daemon says what it has to say to the log";
}

Outcome EndToEnd::ask(std::vector<std::string> selectorsAndPaths, std::optional<uid_t> user) const {
    selectorsAndPaths.insert(selectorsAndPaths.begin(), {application_, "ask"});
    return run({.arguments = std::move(selectorsAndPaths), .user = user});
}

void EndToEnd::makeClientGroup() {
    writeFile("/etc/group", "klarbox:x:" + std::to_string(clientGroup) + ":\n");
}

bool EndToEnd::hasUsers() {
    return std::getenv(usersMark) != nullptr;
}

std::string EndToEnd::whyNoInstalledClients() {
    if (!hasUsers()) {
        return "needs root, for an ordinary user beside it";
    }
#ifdef __SANITIZE_ADDRESS__
    return "the leak checker works in no process that is closed to debuggers";
#endif
    return "";
}

} // namespace klarbox::test

int main(int argc, char **argv) {
    using namespace klarbox::test;
    const bool isListing = std::any_of(argv, argv + argc, [](std::string_view argument) {
        return argument.starts_with("--gtest_list_tests");
    });
    constexpr const char *makeWorld =
        "bwrap --unshare-pid --ro-bind / / --proc /proc --dev /dev true";
    if (!isListing && !isInWorld() && shell(makeWorld).exitCode == 0) {
        const auto enter = std::string(KLARBOX_SOURCE_DIR) + "/Tests/EndToEnd/enter-world";
        std::vector<const char *> arguments{enter.c_str(), KLARBOX_BINARY_DIR, KLARBOX_SOURCE_DIR,
                                            "/programs/EndToEndTests"};
        arguments.insert(arguments.end(), argv + 1, argv + argc + 1);
        ::execv(arguments[0], const_cast<char **>(arguments.data()));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
