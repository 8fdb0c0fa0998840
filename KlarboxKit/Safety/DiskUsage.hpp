#pragma once

#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Safety/PinnedEntry.hpp"

#include <cstdint>
#include <functional>
#include <span>

/// Measures the space that files and folders really occupy: blocks allocated on disk, links not
/// followed, other file systems not entered, every hard-linked file counted once per call.
/// A folder that is mounted inside a tree counts by itself, without what it holds; a folder that
/// cannot be listed likewise; a path that does not exist or is longer than PATH_MAX counts nothing.
/// Trees may be deeper than that.
///
/// Never fails: what cannot be read is not counted. Safe from any thread; long walks are helped by
/// threads that all callers share.
namespace klarbox::DiskUsage {

/// Asked whether to stop; empty stands for never. Called on the thread that asked for the size,
/// with no lock held; what it throws ends the measurement and is passed on.
using CancellationTest = std::function<bool()>;

/// Bytes allocated to all the trees together. The test is asked once for every 2048 visited entries
/// (a folder is visited twice, before and after what it holds): the first time exactly at the
/// 2048th entry, later within moments of it. When it answers yes the size so far is returned.
std::int64_t allocatedSize(std::span<const FileURL> urls, const CancellationTest &isCancelled = {});

/// The same for one tree.
std::int64_t allocatedSize(const FileURL &url, const CancellationTest &isCancelled = {});

/// The same for one tree that is held: whatever its path leads to by now is not looked at. What is
/// known to be no folder counts as it was when it was looked at.
std::int64_t allocatedSize(const PinnedEntry &entry, const CancellationTest &isCancelled = {});

} // namespace klarbox::DiskUsage
