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

    /// Writes one entry, the text as `Text::escaped` has it: one call is always one line, and
    /// different names from disk are different in it, whatever they hold. What cannot be logged is
    /// dropped: there is no better place to complain.
    void log(Level level, std::string_view text) const noexcept;

private:
    std::string subsystem_;
    std::string category_;
};

} // namespace klarbox
