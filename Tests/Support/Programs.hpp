#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include "Tests/Support/Words.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace klarbox::test {

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
    std::vector<std::string> environment = {};          ///< beside what every program gets
    int terminal = -1;                                  ///< in the place of its three streams
};

/// A running program, ended with the object. Of this process's environment it gets nothing but the
/// options of sanitizers.
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
    void signal(int number) const;

private:
    pid_t pid_ = -1; ///< while its end was not seen
    UniqueFD input_;
    UniqueFD output_;
    UniqueFD error_;
};

Outcome run(const Launch &launch);

/// What a shell makes of a command; what it says on either stream is in `out`.
Outcome shell(const std::string &command);

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
