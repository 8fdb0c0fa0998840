#pragma once

#include <functional>

namespace klarbox::test {

/// Runs `body` in a process of its own, so that it may change limits, users and mounts. Failures
/// and a skip there are the test's.
void inIsolatedProcess(const std::function<void()> &body);

// For use inside `body`:

/// Gives the process mounts of its own, as root or as an ordinary user who may. False when the
/// system does not allow it.
bool enterMountNamespace();

/// Makes the process an ordinary user's if it is root's.
void becomeOrdinaryUser();

/// Allows at most this many open descriptors.
void limitDescriptors(unsigned count);

} // namespace klarbox::test
