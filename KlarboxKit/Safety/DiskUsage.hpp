#pragma once

#include "KlarboxKit/Platform/FileURL.hpp"

#include <cstdint>
#include <functional>
#include <span>

/// Measures the space that files and folders really occupy: blocks allocated on disk, links not
/// followed, other file systems not entered, every hard-linked file counted once per call.
/// Never fails: what cannot be read is not counted. Safe from any thread.
namespace klarbox::DiskUsage {

/// Asked whether to stop; empty stands for never. Called on the thread that asked for the size.
using CancellationTest = std::function<bool()>;

/// Bytes allocated to all the trees together. The test is asked once every 2048 visited entries (a
/// folder is visited twice, before and after what it holds); when it answers yes the size so far is
/// returned.
std::int64_t allocatedSize(std::span<const FileURL> urls, const CancellationTest &isCancelled = {});

/// The same for one tree.
std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled = {});

} // namespace klarbox::DiskUsage
