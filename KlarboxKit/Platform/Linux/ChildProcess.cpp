#include "KlarboxKit/Platform/ChildProcess.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"
#include "KlarboxKit/Foundation/Text.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace klarbox {

namespace {

using Clock = std::chrono::steady_clock;

/// As much as a pipe holds at once.
constexpr std::size_t chunkSize = std::size_t{64} * 1024;

/// The status of a child whose exit someone else collected (this process was started with SIGCHLD
/// ignored): nobody knows how it ended, which must not pass for success.
constexpr int unknownStatus = 255;

// Through syscall, as the C library's own header for these is no use from C++ before glibc 2.37.

UniqueFD openProcess(pid_t pid) {
    return UniqueFD(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

void sendSignal(const UniqueFD &process, int signal) {
    // Fails only for a process that has ended meanwhile.
    ::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0);
}

UniqueFD makeEvent() {
    UniqueFD event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event) {
        throw PlatformError::posix(errno);
    }
    return event;
}

void signalEvent(const UniqueFD &event) {
    // Fails only when the event is signalled already, a few times over.
    [[maybe_unused]] const int result = ::eventfd_write(event.get(), 1);
}

/// The termination status when the child has ended; its exit is collected then.
std::optional<int> collectedStatus(const UniqueFD &process) {
    siginfo_t info{};
    int result = 0;
    do {
        result = ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &info, WEXITED | WNOHANG);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        return unknownStatus;
    }
    if (info.si_pid == 0) {
        return std::nullopt;
    }
    // The exit status for an exit, the signal's number otherwise: what a Mac's process class
    // reports, and as signals are numbered from 1 a killed tool never looks like a successful one.
    return info.si_status;
}

/// After a failed poll: one that failed for want of memory is tried again soon, rather than spun
/// on.
void pauseUnlessInterrupted() {
    if (errno != EINTR) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

/// One read from a pipe that does not block. False when the output has ended.
bool readChunk(const UniqueFD &pipe, std::array<char, chunkSize> &chunk, std::size_t &length) {
    length = 0;
    ssize_t count = 0;
    do {
        count = ::read(pipe.get(), chunk.data(), chunk.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        return errno == EAGAIN;
    }
    length = static_cast<std::size_t>(count);
    return count > 0;
}

/// Takes over children that nobody waits for any more. Its thread sleeps while it has none, and is
/// joined when the process exits; what it watches then is left to the system.
class Reaper {
public:
    static Reaper &shared() {
        static Reaper reaper;
        return reaper;
    }

    void adopt(UniqueFD process, UniqueFD pipe) noexcept {
        const std::lock_guard lock(mutex_);
        try {
            arrived_.emplace_back();
        } catch (const std::bad_alloc &) {
            // Closed, the pipe would end a child that writes.
            pipe.release();
            return;
        }
        arrived_.back() = {std::move(process), std::move(pipe)};
        try {
            if (!thread_.joinable()) {
                thread_ = std::jthread([this](std::stop_token stop) { run(std::move(stop)); });
            }
        } catch (const std::exception &) {
            return; // no thread to be had just now; the next arrival tries again
        }
        signalEvent(wake_);
    }

    ~Reaper() {
        if (thread_.joinable()) {
            thread_.request_stop();
            signalEvent(wake_);
            thread_.join();
        }
    }

private:
    struct Orphan {
        UniqueFD process;
        UniqueFD pipe;
    };

    Reaper() : wake_(makeEvent()) {}

    void collect(std::vector<Orphan> &orphans, std::vector<pollfd> &polled) {
        {
            const std::lock_guard lock(mutex_);
            orphans.reserve(orphans.size() + arrived_.size());
            std::ranges::move(arrived_, std::back_inserter(orphans));
            arrived_.clear();
        }
        // poll passes over negative descriptors, so each orphan simply has two places.
        polled.assign(1, {wake_.get(), POLLIN, 0});
        for (const auto &orphan : orphans) {
            polled.push_back({orphan.process.get(), POLLIN, 0});
            polled.push_back({orphan.pipe.get(), POLLIN, 0});
        }
    }

    void run(std::stop_token stop) {
        std::vector<Orphan> orphans;
        std::vector<pollfd> polled;
        std::array<char, chunkSize> chunk;
        while (!stop.stop_requested()) {
            try {
                collect(orphans, polled);
            } catch (const std::bad_alloc &) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            if (::poll(polled.data(), polled.size(), -1) < 0) {
                pauseUnlessInterrupted();
                continue;
            }
            eventfd_t ignored = 0;
            if (polled[0].revents != 0) {
                ::eventfd_read(wake_.get(), &ignored);
            }
            for (std::size_t i = 0; i < orphans.size(); ++i) {
                if (polled[2 * i + 1].revents != 0 && collectedStatus(orphans[i].process)) {
                    orphans[i].process.reset();
                }
                std::size_t length = 0;
                if (polled[2 * i + 2].revents != 0 && !readChunk(orphans[i].pipe, chunk, length)) {
                    orphans[i].pipe.reset();
                }
            }
            std::erase_if(orphans,
                          [](const Orphan &orphan) { return !orphan.process && !orphan.pipe; });
        }
    }

    UniqueFD wake_;
    std::mutex mutex_;
    std::vector<Orphan> arrived_;
    std::jthread thread_;
};

/// A descriptor above the three standard ones: one in their place would be overwritten while the
/// child's are laid out, when this process runs with some of its own closed.
UniqueFD aboveStandard(UniqueFD fd) {
    if (fd.get() > STDERR_FILENO) {
        return fd;
    }
    UniqueFD moved(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!moved) {
        throw PlatformError::posix(errno);
    }
    return moved;
}

struct Pipe {
    UniqueFD readEnd;
    UniqueFD writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw PlatformError::posix(errno);
    }
    UniqueFD readEnd(ends[0]);
    UniqueFD writeEnd(ends[1]);
    Pipe pipe{aboveStandard(std::move(readEnd)), aboveStandard(std::move(writeEnd))};
    // Only this end: tools do not expect a standard output that refuses to block.
    if (::fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
        throw PlatformError::posix(errno);
    }
    return pipe;
}

void check(int code) {
    if (code != 0) {
        throw PlatformError::posix(code);
    }
}

class SpawnActions {
public:
    SpawnActions() { check(::posix_spawn_file_actions_init(&value_)); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&value_); }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;
    posix_spawn_file_actions_t *get() { return &value_; }

private:
    posix_spawn_file_actions_t value_;
};

class SpawnAttributes {
public:
    SpawnAttributes() { check(::posix_spawnattr_init(&value_)); }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&value_); }
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    posix_spawnattr_t *get() { return &value_; }

private:
    posix_spawnattr_t value_;
};

/// The texts as the null-terminated list that a new program is handed. A text with a NUL in it
/// would arrive cut short, as another argument than was meant.
std::vector<char *> vectorOf(std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    for (auto &text : texts) {
        if (text.find('\0') != std::string::npos) {
            throw PlatformError::posix(EINVAL);
        }
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t spawn(const FileURL &executable, const std::vector<std::string> &arguments,
            const std::map<std::string, std::string> &environment, const UniqueFD &output) {
    SpawnActions actions;
    check(
        ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    check(::posix_spawn_file_actions_adddup2(actions.get(), output.get(), STDOUT_FILENO));
    check(::posix_spawn_file_actions_adddup2(actions.get(), output.get(), STDERR_FILENO));
    // Our own descriptors close themselves; those that we were started with do not.
    check(::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1));

    SpawnAttributes attributes;
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    check(::posix_spawnattr_setsigmask(attributes.get(), &none));
    check(::posix_spawnattr_setsigdefault(attributes.get(), &all));
    check(::posix_spawnattr_setflags(
        attributes.get(), POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID));

    std::vector<std::string> argumentTexts{executable.path()};
    argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environmentTexts;
    environmentTexts.reserve(environment.size());
    for (const auto &[name, value] : environment) {
        environmentTexts.push_back(fmt::format("{}={}", name, value));
    }
    const auto argumentVector = vectorOf(argumentTexts);
    const auto environmentVector = vectorOf(environmentTexts);
    pid_t pid = -1;
    check(::posix_spawn(&pid, argumentVector.front(), actions.get(), attributes.get(),
                        argumentVector.data(), environmentVector.data()));
    return pid;
}

/// Without a descriptor for it a child could not be waited for within a limit. It has hardly begun,
/// so it is taken back.
[[noreturn]] void takeBack(pid_t pid, int cause) {
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    throw PlatformError::posix(cause);
}

/// `timeout` from now; now for a negative one, never for one beyond what the clock can tell.
Clock::time_point deadlineAfter(std::chrono::nanoseconds timeout) {
    const auto now = Clock::now();
    return now + std::clamp(timeout, std::chrono::nanoseconds::zero(),
                            std::chrono::nanoseconds(Clock::time_point::max() - now));
}

} // namespace

/// While it lives, a stop waits for a child that is being started.
class ChildProcess::Starting {
public:
    explicit Starting(ChildProcess &child) : child_(child) { set(true); }
    ~Starting() {
        set(false);
        child_.started_.notify_all();
    }
    Starting(const Starting &) = delete;
    Starting &operator=(const Starting &) = delete;

private:
    void set(bool isStarting) {
        const std::lock_guard lock(child_.mutex_);
        child_.isStarting_ = isStarting;
    }

    ChildProcess &child_;
};

ChildProcess::ChildProcess(const FileURL &executable, const std::vector<std::string> &arguments,
                           const std::map<std::string, std::string> &environment,
                           std::stop_token stop)
    : stop_(std::move(stop)) {
    try {
        // Now, as later there would be a running child and nobody to tell that something is amiss.
        Reaper::shared();
        stopped_ = makeEvent();
        onStop_.emplace(stop_, [this] { this->stop(); });
        start(executable, arguments, environment);
    } catch (const PlatformError &error) {
        throw PlatformError(PlatformError::Domain::posix, error.code(),
                            fmt::format("“{}” could not be started: {}.",
                                        Text::repairedUTF8(executable.path()),
                                        std::generic_category().message(error.code())));
    }
    if (stop_.stop_requested()) {
        terminate(); // starting took longer than whoever stopped could wait
    }
}

ChildProcess::~ChildProcess() {
    onStop_.reset();
    if (status_) {
        process_.reset();
    }
    if (process_ || pipe_) {
        Reaper::shared().adopt(std::move(process_), std::move(pipe_));
    }
}

void ChildProcess::start(const FileURL &executable, const std::vector<std::string> &arguments,
                         const std::map<std::string, std::string> &environment) {
    const Starting starting(*this);
    if (stop_.stop_requested()) {
        return;
    }
    auto pipe = makePipe();
    const auto pid = spawn(executable, arguments, environment, pipe.writeEnd);
    process_ = openProcess(pid);
    if (!process_) {
        takeBack(pid, errno);
    }
    pipe_ = std::move(pipe.readEnd);
}

void ChildProcess::stop() {
    {
        // A program whose disk does not answer must not hold up whoever stops.
        std::unique_lock lock(mutex_);
        if (started_.wait_for(lock, std::chrono::seconds(1), [this] { return !isStarting_; })) {
            terminate();
        }
    }
    signalEvent(stopped_);
}

void ChildProcess::collectStatus() {
    // Its descriptor stays: a stop may be using it on another thread.
    if (process_ && !status_) {
        status_ = collectedStatus(process_);
    }
}

void ChildProcess::keep(std::string_view piece) {
    if (isOutputLost_) {
        return;
    }
    try {
        if (output_.size() + piece.size() > outputLimit) {
            output_.erase(0, outputLimit / 2);
        }
        output_.append(piece);
    } catch (const std::bad_alloc &) {
        // How the child ends is worth more than what it says. So short a text needs no room.
        isOutputLost_ = true;
        output_ = std::string();
        output_ = "Out of memory";
    }
}

/// Whether there may be more to read right now.
bool ChildProcess::readSome() {
    std::array<char, chunkSize> chunk;
    std::size_t length = 0;
    if (!readChunk(pipe_, chunk, length)) {
        pipe_.reset();
        return false;
    }
    keep({chunk.data(), length});
    return length > 0;
}

std::optional<int> ChildProcess::wait(std::chrono::nanoseconds timeout) {
    const auto deadline = deadlineAfter(timeout);
    while (!status_ || pipe_) {
        const auto remaining = deadline - Clock::now();
        if (remaining <= Clock::duration::zero() || stop_.stop_requested()) {
            collectStatus();
            if (status_) {
                // What the child itself wrote is in the pipe by now: at most a pipe's worth, while
                // others who hold the pipe may go on writing for ever.
                constexpr std::size_t most = std::size_t{1024} * 1024;
                for (std::size_t read = 0; pipe_ && read < most && readSome(); read += chunkSize) {
                }
            }
            return status_;
        }
        std::array<pollfd, 3> polled{{{status_ ? -1 : process_.get(), POLLIN, 0},
                                      {pipe_.get(), POLLIN, 0},
                                      {stopped_.get(), POLLIN, 0}}};
        const auto step = std::min<Clock::duration>(remaining, std::chrono::hours(1));
        const auto seconds = std::chrono::floor<std::chrono::seconds>(step);
        const timespec limit{seconds.count(), std::chrono::nanoseconds(step - seconds).count()};
        if (::ppoll(polled.data(), polled.size(), &limit, nullptr) < 0) {
            pauseUnlessInterrupted();
            continue;
        }
        if (polled[1].revents != 0) {
            readSome(); // one piece, so that a busy writer cannot hide that time is up
        }
        if (polled[0].revents != 0) {
            collectStatus();
        }
    }
    return status_;
}

void ChildProcess::terminate() {
    if (process_ && !isAskedToTerminate_.exchange(true)) {
        sendSignal(process_, SIGTERM);
    }
}

} // namespace klarbox
