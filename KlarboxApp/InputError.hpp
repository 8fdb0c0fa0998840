#pragma once

#include <stdexcept>
#include <string>

namespace klarbox {

/// Input that cannot be worked with: which, and what is wrong with it, in one line. Nothing was
/// touched.
class InputError : public std::runtime_error {
public:
    /// What a front end has names of its own for.
    enum class Input {
        disk,
        home,
        whichHome, ///< none is named, and there is more than one, or none
        item,
        other, ///< named by the text itself
    };

    InputError(Input input, const std::string &what) : runtime_error(what), input_(input) {}
    explicit InputError(const std::string &what) : InputError(Input::other, what) {}

    Input input() const { return input_; }

private:
    Input input_;
};

} // namespace klarbox
