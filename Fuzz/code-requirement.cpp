#include "KlarboxKit/Platform/CodeSigning.hpp"

#include <cstdint>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    if (const auto requirement = CodeRequirement::parse(text)) {
        fuzz::require(!requirement->isSatisfiedBy({}), "nobody satisfies every requirement");
        fuzz::require(CodeRequirement::parse(std::string(text) + " and anchor apple generic") &&
                          !CodeRequirement::parse(std::string(text) + " or anchor apple generic"),
                      "all of a text is read");
    }
    return 0;
}
