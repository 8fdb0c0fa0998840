#pragma once

#include <string>
#include <string_view>

namespace klarbox {

/// A logger of the system's log, for one category of one subsystem. Immutable; safe from any
/// thread.
class SystemLog {
public:
    enum class Level { info, notice, error };

    SystemLog(std::string subsystem, std::string category);

    /// Writes one entry; control characters of the text are made visible, so that one call is
    /// always one line, whatever names from disk it holds. What cannot be logged is dropped: there
    /// is no better place to complain.
    void log(Level level, std::string_view text) const noexcept;

private:
    std::string subsystem_;
    std::string category_;
};

} // namespace klarbox
