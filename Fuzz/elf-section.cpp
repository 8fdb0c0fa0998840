#include "KlarboxKit/Platform/Linux/ELFSection.hpp"
#include "KlarboxKit/Platform/PlatformError.hpp"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

#include "Fuzz/Require.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace klarbox;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    const UniqueFD file(::memfd_create("executable", MFD_CLOEXEC));
    fuzz::require(::write(file.get(), data, size) == static_cast<ssize_t>(size), "a file is made");
    constexpr std::size_t limit = 1024;
    if (const auto section = elfSection(file, infoPlistSection, limit)) {
        fuzz::require(section->size() <= limit, "the limit is kept");
        fuzz::require(bytes.find(*section) != std::string_view::npos, "a section is in the file");
    }
    return 0;
}
