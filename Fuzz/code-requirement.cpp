#include "KlarboxKit/Foundation/CodeRequirement.hpp"

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view text) {
    if (const auto requirement = CodeRequirement::parse(text)) {
        require(!requirement->isSatisfiedBy({}), "nobody satisfies every requirement");
        require(CodeRequirement::parse(std::string(text) + " and anchor apple generic") &&
                    !CodeRequirement::parse(std::string(text) + " or anchor apple generic"),
                "all of a text is read");
    }
}
