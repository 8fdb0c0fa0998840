#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace klarbox {

/// Name of the section in which an executable carries its information property list.
inline constexpr std::string_view infoPlistSection = "__info_plist";

/// The bytes of the first section called `name` in the executable open for reading at `file`;
/// nothing when that is no 64-bit ELF file of this machine's byte order, is damaged, or has no such
/// section of at most `limit` bytes. The file may be hostile: what is read, held and looked at is
/// bounded whatever it claims. The descriptor's offset is neither used nor moved.
///
/// Throws a POSIX `PlatformError` when reading fails. Safe from any thread.
std::optional<std::string> elfSection(const UniqueFD &file, std::string_view name,
                                      std::size_t limit = std::size_t{64} << 10);

/// Fills a buffer with `size` bytes from `offset` of an executable; false when it ends before.
using ExecutableReader = std::function<bool(void *buffer, std::size_t size, std::uint64_t offset)>;

/// The same of an executable that is read through `read`.
std::optional<std::string> elfSection(const ExecutableReader &read, std::string_view name,
                                      std::size_t limit = std::size_t{64} << 10);

/// Reads as an `ExecutableReader` does. Throws a POSIX `PlatformError` when reading fails.
bool readExactly(const UniqueFD &file, void *buffer, std::size_t size, std::uint64_t offset);

} // namespace klarbox
