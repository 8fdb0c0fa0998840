#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include <cstring>
#include <elf.h>
#include <functional>
#include <limits>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

/// A program of three sections that has nothing but what is looked at.
struct Program {
    Elf64_Ehdr header{};
    Elf64_Shdr none{};
    Elf64_Shdr names{};
    Elf64_Shdr list{};
    char text[32] = "\0__info_plist\0__info_plist2";
    char content[8] = "content";

    Program() {
        std::memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_shoff = offsetof(Program, none);
        header.e_shentsize = sizeof(Elf64_Shdr);
        header.e_shnum = 3;
        header.e_shstrndx = 1;
        names.sh_type = SHT_STRTAB;
        names.sh_offset = offsetof(Program, text);
        names.sh_size = sizeof text;
        list.sh_type = SHT_PROGBITS;
        list.sh_name = 1;
        list.sh_offset = offsetof(Program, content);
        list.sh_size = sizeof content - 1;
    }
};

std::optional<std::string> sectionOf(const void *bytes, std::size_t size, std::size_t limit = 100) {
    const UniqueFD file(::memfd_create("program", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), bytes, size), static_cast<ssize_t>(size));
    return elfSection(file, infoPlistSection, limit);
}

TEST(ELFSection, isFoundByItsWholeName) {
    Program program;
    EXPECT_EQ(sectionOf(&program, sizeof program), "content");
    program.list.sh_name = 14; // of which ours is the beginning
    EXPECT_EQ(sectionOf(&program, sizeof program), std::nullopt);
}

TEST(ELFSection, isNoneInADamagedProgram) {
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    const std::vector<std::pair<const char *, std::function<void(Program &)>>> damages{
        {"no program", [](auto &p) { p.header.e_ident[0] = '#'; }},
        {"another class", [](auto &p) { p.header.e_ident[EI_CLASS] = ELFCLASS32; }},
        {"another byte order", [](auto &p) { p.header.e_ident[EI_DATA] = ELFDATA2MSB; }},
        {"a small entry", [](auto &p) { p.header.e_shentsize = 1; }},
        {"no sections", [](auto &p) { p.header.e_shnum = 0; }},
        {"too many sections", [](auto &p) { p.header.e_shnum = 0xffff; }},
        {"no names", [](auto &p) { p.header.e_shstrndx = 3; }},
        {"a table beyond the end", [](auto &p) { p.header.e_shoff = sizeof(Program); }},
        {"a table at the end of all offsets", [](auto &p) { p.header.e_shoff = most - 64; }},
        {"names beyond the end", [](auto &p) { p.names.sh_offset = most; }},
        {"a name beyond the names", [](auto &p) { p.list.sh_name = sizeof p.text - 3; }},
        {"a name far off", [](auto &p) { p.list.sh_name = 0xffffffff; }},
        {"no content in the file", [](auto &p) { p.list.sh_type = SHT_NOBITS; }},
        {"content beyond the end", [](auto &p) { p.list.sh_size = 100; }},
        {"content longer than allowed", [](auto &p) { p.list.sh_size = 101; }},
        {"content of any length", [](auto &p) { p.list.sh_size = most; }},
        {"content at the end of all offsets", [](auto &p) { p.list.sh_offset = most; }},
    };
    for (const auto &[what, damage] : damages) {
        Program program;
        damage(program);
        EXPECT_EQ(sectionOf(&program, sizeof program), std::nullopt) << what;
    }
    // The last byte of all is padding behind the content.
    for (std::size_t size = 0; size < sizeof(Program) - 1; ++size) {
        const Program program;
        EXPECT_EQ(sectionOf(&program, size), std::nullopt) << size;
    }
}

} // namespace
} // namespace klarbox::test
