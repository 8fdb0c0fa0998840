#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <limits>
#include <unistd.h>
#include <vector>

namespace klarbox {

namespace {

/// Programs have some forty sections; a table far beyond that is not worth the time it costs.
constexpr std::size_t mostSections = 4096;

bool isReadable(const Elf64_Ehdr &header) {
    constexpr auto byteOrder =
        std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == byteOrder &&
           header.e_shentsize == sizeof(Elf64_Shdr) && header.e_shnum <= mostSections &&
           header.e_shstrndx < header.e_shnum;
}

} // namespace

bool readExactly(const UniqueFD &file, void *buffer, std::size_t size, std::uint64_t offset) {
    constexpr auto furthest = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
    if (offset > furthest || size > furthest - offset) {
        return false;
    }
    auto *to = static_cast<char *>(buffer);
    while (size > 0) {
        const auto got = ::pread(file.get(), to, size, static_cast<off_t>(offset));
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw PlatformError::posix(errno);
        }
        if (got == 0) {
            return false;
        }
        to += got;
        offset += static_cast<std::uint64_t>(got);
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

std::optional<std::string> elfSection(const UniqueFD &file, std::string_view name,
                                      std::size_t limit) {
    return elfSection([&](void *buffer, std::size_t size,
                          std::uint64_t offset) { return readExactly(file, buffer, size, offset); },
                      name, limit);
}

std::optional<std::string> elfSection(const ExecutableReader &read, std::string_view name,
                                      std::size_t limit) {
    Elf64_Ehdr header{};
    if (!read(&header, sizeof header, 0) || !isReadable(header)) {
        return std::nullopt;
    }
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    if (!read(sections.data(), sections.size() * sizeof(Elf64_Shdr), header.e_shoff)) {
        return std::nullopt;
    }
    const auto &names = sections[header.e_shstrndx];
    // Together with its closing NUL, so that a longer name that begins alike does not match.
    const std::string wanted = std::string(name) + '\0';
    std::string found(wanted.size(), '\0');
    for (const auto &section : sections) {
        if (section.sh_type == SHT_NOBITS || section.sh_size > limit ||
            section.sh_name > names.sh_size || names.sh_size - section.sh_name < wanted.size() ||
            names.sh_offset > std::numeric_limits<std::uint64_t>::max() - section.sh_name ||
            !read(found.data(), found.size(), names.sh_offset + section.sh_name) ||
            found != wanted) {
            continue;
        }
        std::string bytes(section.sh_size, '\0');
        if (!read(bytes.data(), bytes.size(), section.sh_offset)) {
            return std::nullopt;
        }
        return bytes;
    }
    return std::nullopt;
}

} // namespace klarbox
