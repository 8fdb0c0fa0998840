#include "Tests/EndToEnd/World.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/magic.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace klarbox::test {

namespace {

const std::string binaries = "/programs";
const std::string source = "/source";
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

void check(bool holds, const std::string &what) {
    if (!holds) {
        throw std::runtime_error(what + ": " + std::strerror(errno));
    }
}

std::string readAll(int fd) {
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t got = 0;
    while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
    std::vector<char *> found;
    for (const auto &text : texts) {
        found.push_back(const_cast<char *>(text.c_str()));
    }
    found.push_back(nullptr);
    return found;
}

} // namespace

// MARK: Programs

Running::Running(const Launch &launch) {
    auto arguments = launch.arguments;
    if (launch.user || launch.effectiveGroup) {
        const auto id = std::to_string(launch.user.value_or(0));
        std::vector<std::string> prefix{
            "/usr/bin/setpriv",
            "--reuid",
            id,
            "--rgid",
            id,
            "--egid",
            std::to_string(launch.effectiveGroup.value_or(launch.user.value_or(0))),
            "--clear-groups",
            "--"};
        arguments.insert(arguments.begin(), prefix.begin(), prefix.end());
    }
    std::vector<std::string> environment{"PATH=/usr/sbin:/usr/bin", "LC_ALL=C.UTF-8"};
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char *value = std::getenv(name)) {
            environment.push_back(std::string(name) + "=" + value);
        }
    }
    environment.insert(environment.end(), launch.environment.begin(), launch.environment.end());

    int in[2];
    int out[2];
    int err[2];
    check(::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0 &&
              ::pipe2(err, O_CLOEXEC) == 0,
          "pipe");
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    errno = ::posix_spawn(&pid_, arguments[0].c_str(), &actions, nullptr,
                          pointers(arguments).data(), pointers(environment).data());
    const bool started = errno == 0;
    ::posix_spawn_file_actions_destroy(&actions);
    for (const int fd : {in[0], out[1], err[1]}) {
        ::close(fd);
    }
    input_ = in[1];
    output_ = out[0];
    error_ = err[0];
    check(started, arguments[0]);
}

Running::~Running() {
    if (reported_ < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    for (const int fd : {input_, output_, error_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void Running::signal(int number) const {
    ::kill(pid_, number);
}

std::string Running::readLine() {
    std::string line;
    char c = 0;
    while (::read(output_, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

void Running::writeLine(const std::string &line) const {
    const auto text = line + "\n";
    check(::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
}

Outcome Running::finish() {
    ::close(std::exchange(input_, -1));
    Outcome outcome{};
    // One after the other is enough: nothing started here fills a pipe with errors.
    outcome.out = readAll(output_);
    outcome.err = readAll(error_);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    reported_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    outcome.exitCode = reported_;
    return outcome;
}

Outcome run(const Launch &launch) {
    return Running(launch).finish();
}

// MARK: Journal

Journal::Journal() {
    std::filesystem::create_directories("/run/systemd/journal");
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/run/systemd/journal/socket");
    ::unlink(address.sun_path);
    check(::bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
          "journal");
    ::chmod(address.sun_path, 0666);
    reader_ = std::jthread([this](const std::stop_token &stop) {
        std::string packet(65536, '\0');
        while (!stop.stop_requested()) {
            pollfd ready{.fd = socket_, .events = POLLIN, .revents = 0};
            if (::poll(&ready, 1, 20) <= 0) {
                continue;
            }
            const auto got = ::recv(socket_, packet.data(), packet.size(), 0);
            if (got > 0) {
                // Read apart only when somebody asks: programs wait when this does not keep up.
                const std::lock_guard lock(mutex_);
                packets_.emplace_back(packet.data(), static_cast<std::size_t>(got));
            }
        }
    });
}

Journal::~Journal() {
    reader_.request_stop();
    reader_.join();
    ::close(socket_);
}

std::vector<Journal::Entry> Journal::entries() const {
    const std::lock_guard lock(mutex_);
    std::vector<Entry> entries;
    for (const auto &packet : packets_) {
        std::istringstream lines(packet);
        Entry entry;
        for (std::string line; std::getline(lines, line);) {
            if (const auto equals = line.find('='); equals != std::string::npos) {
                entry.emplace(line.substr(0, equals), line.substr(equals + 1));
            }
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<std::string> Journal::messages(std::string_view category, std::size_t count) const {
    std::vector<std::string> found;
    eventually([&] {
        found.clear();
        for (const auto &entry : entries()) {
            if (const auto at = entry.find("CATEGORY");
                at != entry.end() && at->second == category) {
                found.push_back(entry.at("MESSAGE"));
            }
        }
        return found.size() >= count;
    });
    return found;
}

// MARK: Files

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
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

void emptyFolder(const std::string &path) {
    check(isInWorld(), "outside a world nothing is emptied");
    std::error_code ignored; // what is mounted in the world stays
    for (const auto &entry : std::filesystem::directory_iterator(path, ignored)) {
        if (entry.is_directory() && !entry.is_symlink()) {
            emptyFolder(entry.path());
        }
        std::filesystem::remove(entry.path(), ignored);
    }
}

// MARK: The world

void EndToEnd::SetUp() {
    if (!isInWorld()) {
        GTEST_SKIP() << "bwrap cannot make a private world here";
    }
    helperPath_ = install("KlarboxHelper", "KlarboxHelper");
    application_ = install("packet-client", "application");
    sign(helperPath_);
    sign(application_);
    std::filesystem::create_directories("/etc/klarbox/anchors");
    std::filesystem::copy_file("/tmp/authority/anchor.pem", "/etc/klarbox/anchors/test.pem");
    for (const char *folder :
         {"/Library/Caches", "/Library/Logs/DiagnosticReports", "/private/var/log", "/Users/ann"}) {
        std::filesystem::create_directories(folder);
    }
    std::filesystem::create_symlink("private/var", "/var");
    ::chmod("/tmp", 01777);
    ::chmod("/Library/Caches", 01777);
    if (hasUsers()) {
        check(::chown("/Users/ann", ann, ann) == 0, "/Users/ann");
    }
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
    for (const char *folder :
         {"/etc/klarbox", "/Library", "/opt", "/private", "/run", "/tmp", "/Users"}) {
        emptyFolder(folder);
    }
    std::filesystem::remove("/etc/group");
    std::filesystem::remove("/var");
}

std::string EndToEnd::install(const std::string &program, const std::string &name) {
    std::filesystem::create_directories("/opt/klarbox");
    const std::string path = "/opt/klarbox/" + name;
    std::filesystem::copy_file(program.starts_with('/') ? program : binaries + "/" + program, path);
    return path;
}

void EndToEnd::sign(const std::string &file, const std::vector<std::string> &options) {
    Launch launch{.arguments = {source + "/Packaging/sign", "--authority", "/tmp/authority"}};
    launch.arguments.insert(launch.arguments.end(), options.begin(), options.end());
    launch.arguments.push_back(file);
    const auto outcome = run(launch);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
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

namespace {

/// Replaces this process with itself inside a private world; returns only when that cannot be.
void enterWorld(int argc, char **argv) {
    const bool isRoot = ::geteuid() == 0;
    std::vector<std::string> arguments{
        "bwrap", "--unshare-pid", "--die-with-parent", "--perms", "0755", "--tmpfs", "/"};
    const auto add = [&](std::initializer_list<std::string> more) {
        arguments.insert(arguments.end(), more);
    };
    if (!isRoot) {
        add({"--unshare-user", "--uid", "0", "--gid", "0"});
    }
    add({"--perms", "0755", "--dir", "/etc", "--ro-bind", "/usr", "/usr"});
    for (const std::string folder : {"/bin", "/sbin", "/lib", "/lib64"}) {
        if (std::filesystem::is_symlink(folder)) {
            add({"--symlink", std::filesystem::read_symlink(folder), folder});
        } else {
            add({"--ro-bind-try", folder, folder});
        }
    }
    add({"--ro-bind-try", "/etc/ld.so.cache", "/etc/ld.so.cache"});
    add({"--ro-bind-try", "/etc/ssl/openssl.cnf", "/etc/ssl/openssl.cnf"});
    add({"--proc", "/proc", "--dev", "/dev", "--dir", "/tmp", "--dir", "/run", "--dir", "/opt"});
    add({"--perms", "0755", "--dir", "/Library", "--tmpfs", mountPoint});
    add({"--ro-bind", KLARBOX_BINARY_DIR, binaries, "--ro-bind", KLARBOX_SOURCE_DIR, source});
    add({"--dir", worldMark, isRoot ? "--setenv" : "--unsetenv", usersMark});
    if (isRoot) {
        add({"1"});
    }
    add({"--chdir", "/"});
    add({binaries + "/EndToEndTests"});
    for (int i = 1; i < argc; ++i) {
        arguments.emplace_back(argv[i]);
    }
    ::execvp("bwrap", pointers(arguments).data());
}

/// Whether worlds can be made here at all.
bool canMakeWorlds() {
    return std::system(
               "bwrap --unshare-pid --ro-bind / / --proc /proc --dev /dev true 2>/dev/null") == 0;
}

} // namespace

} // namespace klarbox::test

int main(int argc, char **argv) {
    using namespace klarbox::test;
    const bool isListing = std::any_of(argv, argv + argc, [](std::string_view argument) {
        return argument.starts_with("--gtest_list_tests");
    });
    if (!isListing && !isInWorld() && canMakeWorlds()) {
        enterWorld(argc, argv);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
