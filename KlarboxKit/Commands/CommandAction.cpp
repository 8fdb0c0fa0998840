#include "KlarboxKit/Commands/CommandAction.hpp"

namespace klarbox {

std::string CommandAction::displayString() const {
    std::string text(executable.lastComponent());
    for (const auto &argument : arguments) {
        text.append(" ").append(argument);
    }
    return text;
}

} // namespace klarbox
