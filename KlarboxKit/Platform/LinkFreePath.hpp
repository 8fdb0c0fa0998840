#pragma once

#include "KlarboxKit/Platform/UniqueFD.hpp"

#include <string>

namespace klarbox {

/// Whether no symbolic link stands anywhere in an absolute path or at its end. False also for what
/// does not exist, and where it cannot be told in one step; errno is ENOENT only when no link
/// stands before what is missing. Safe from any thread.
bool isLinkFree(const std::string &path);

/// Opens the folder at an absolute path only if no symbolic link stands anywhere in it or at its
/// end: for looking below it, which takes no right to list it. None, with errno set, when it cannot
/// be opened; ENOTDIR also for a link. One system call where the system can do it, otherwise one
/// folder after another. Safe from any thread.
UniqueFD openLinkFreeFolder(const std::string &path);

} // namespace klarbox
