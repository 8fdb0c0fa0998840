#include "KlarboxKit/Platform/Linux/ELFSection.hpp"

#include "Tests/Platform/SampleProgram.hpp"

#include <functional>
#include <limits>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace klarbox::test {
namespace {

std::optional<std::string> sectionOf(std::string_view bytes, std::size_t limit = 160) {
    const UniqueFD file(::memfd_create("program", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return elfSection(file, infoPlistSection, limit);
}

TEST(ELFSection, isFoundByItsWholeNameWithinTheLimit) {
    SampleProgram program;
    EXPECT_EQ(sectionOf(program.bytes()), program.content);
    EXPECT_EQ(sectionOf(program.bytes(), program.list.sh_size - 1), std::nullopt);
    program.list.sh_name = 14; // of which ours is the beginning
    EXPECT_EQ(sectionOf(program.bytes()), std::nullopt);
}

TEST(ELFSection, isNoneInADamagedProgram) {
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    const std::vector<std::pair<const char *, std::function<void(SampleProgram &)>>> damages{
        {"no program", [](auto &p) { p.header.e_ident[0] = '#'; }},
        {"another class", [](auto &p) { p.header.e_ident[EI_CLASS] = ELFCLASS32; }},
        {"another byte order", [](auto &p) { p.header.e_ident[EI_DATA] = ELFDATA2MSB; }},
        {"a small entry", [](auto &p) { p.header.e_shentsize = 1; }},
        {"no sections", [](auto &p) { p.header.e_shnum = 0; }},
        {"too many sections", [](auto &p) { p.header.e_shnum = 0xffff; }},
        {"no names", [](auto &p) { p.header.e_shstrndx = 4; }},
        {"a table beyond the end", [](auto &p) { p.header.e_shoff = sizeof p; }},
        {"a table at the end of all offsets", [](auto &p) { p.header.e_shoff = most - 64; }},
        {"names beyond the end", [](auto &p) { p.names.sh_offset = most; }},
        {"a name beyond the names", [](auto &p) { p.names.sh_size = 13; }},
        {"a name far off", [](auto &p) { p.list.sh_name = 0xffffffff; }},
        {"no content in the file", [](auto &p) { p.list.sh_type = SHT_NOBITS; }},
        {"content beyond the end", [](auto &p) { ++p.list.sh_size; }},
        {"content of any length", [](auto &p) { p.list.sh_size = most; }},
        {"content at the end of all offsets", [](auto &p) { p.list.sh_offset = most; }},
    };
    for (const auto &[what, damage] : damages) {
        SampleProgram program;
        damage(program);
        EXPECT_EQ(sectionOf(program.bytes()), std::nullopt) << what;
    }
    const SampleProgram program;
    for (std::size_t size = 0; size < program.bytes().size(); ++size) {
        EXPECT_EQ(sectionOf(program.bytes().substr(0, size)), std::nullopt) << size;
    }
}

} // namespace
} // namespace klarbox::test
