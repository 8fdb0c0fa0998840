#pragma once

#include <cstddef>
#include <cstring>
#include <elf.h>
#include <string_view>

namespace klarbox::test {

/// A program that says who it is, and has nothing but what is looked at.
struct SampleProgram {
    Elf64_Ehdr header{};
    Elf64_Shdr none{};
    Elf64_Shdr names{};
    Elf64_Shdr list{};
    Elf64_Shdr client{};
    char text[48] = "\0__info_plist\0__info_plist2\0__xpc_client";
    char content[160] =
        "<plist><dict><key>CFBundleIdentifier</key><string>app.klarbox.Klarbox</string>"
        "<key>CFBundleShortVersionString</key><string>1.2.3</string></dict></plist>";

    SampleProgram() {
        std::memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_shoff = offsetof(SampleProgram, none);
        header.e_shentsize = sizeof(Elf64_Shdr);
        header.e_shnum = 4;
        header.e_shstrndx = 1;
        const auto set = [](Elf64_Shdr &section, Elf64_Word name, std::size_t at,
                            std::size_t size) {
            section.sh_name = name;
            section.sh_type = SHT_PROGBITS;
            section.sh_offset = at;
            section.sh_size = size;
        };
        set(names, 0, offsetof(SampleProgram, text), sizeof text);
        set(list, 1, offsetof(SampleProgram, content), std::strlen(content));
        set(client, 28, offsetof(SampleProgram, content), 0);
    }

    std::string_view bytes() const {
        return {reinterpret_cast<const char *>(this),
                offsetof(SampleProgram, content) + std::strlen(content)};
    }
};

} // namespace klarbox::test
