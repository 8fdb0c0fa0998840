#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include "Fuzz/Target.hpp"

void klarbox::fuzz::run(std::string_view bytes) {
    const UniqueFD file(::memfd_create("executable", MFD_CLOEXEC));
    require(::write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
            "a file is made");
    constexpr std::size_t limit = 1024;
    if (const auto section = elfSection(file, infoPlistSection, limit)) {
        require(section->size() <= limit, "the limit is kept");
        require(bytes.find(*section) != bytes.npos, "a section is in the file");
    }
}
