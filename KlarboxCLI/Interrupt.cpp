#include "KlarboxCLI/Interrupt.hpp"

#include <chrono>
#include <csignal>
#include <ctime>
#include <unistd.h>

namespace klarbox {

namespace {

/// How long running tools get to hear that they are no longer wanted.
constexpr auto grace = std::chrono::milliseconds(50);

/// What asks a program to end: Ctrl-C, SIGTERM, and a terminal that is closed. But for those that
/// whoever started this process had it ignore (as a shell does for a job in the background).
sigset_t watchedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_IGN) {
            sigaddset(&signals, signal);
        }
    }
    return signals;
}

/// Wakes the watcher when it is to quit; sent to that thread alone.
constexpr int wakeUp = SIGUSR1;

} // namespace

Interrupt::Interrupt() {
    auto signals = watchedSignals();
    sigaddset(&signals, wakeUp);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    watcher_ = std::jthread([this](const std::stop_token &quit) { watch(quit); });
}

Interrupt::~Interrupt() {
    watcher_.request_stop();
    ::pthread_kill(watcher_.native_handle(), wakeUp);
}

Interrupt::Hook::Hook(Interrupt &interrupt, std::function<void()> tidyUp) : interrupt_(interrupt) {
    replace(std::move(tidyUp));
}

Interrupt::Hook::~Hook() {
    replace(nullptr);
}

void Interrupt::Hook::replace(std::function<void()> tidyUp) {
    const std::lock_guard lock(interrupt_.mutex_);
    interrupt_.tidyUp_ = std::move(tidyUp);
}

void Interrupt::finishWorkFirst() {
    // Ctrl-C also ends whatever reads the output; writing to it then must not end this process.
    std::signal(SIGPIPE, SIG_IGN);
    finishesWorkFirst_ = true;
}

void Interrupt::watch(const std::stop_token &quit) {
    auto signals = watchedSignals();
    sigaddset(&signals, wakeUp);
    for (;;) {
        int signal = 0;
        if (::sigwait(&signals, &signal) != 0 || (signal == wakeUp && !quit.stop_requested())) {
            continue;
        }
        if (quit.stop_requested()) {
            return;
        }
        signal_ = signal;
        const bool isSecond = source_.stop_requested();
        source_.request_stop();
        if (!isSecond) {
            const std::lock_guard lock(mutex_);
            if (tidyUp_) {
                tidyUp_();
            }
        }
        if (!finishesWorkFirst_ || isSecond) {
            std::this_thread::sleep_for(grace);
            // Other threads are in the middle of reading; nobody waits for what they would find.
            ::_exit(exitCode());
        }
    }
}

} // namespace klarbox
