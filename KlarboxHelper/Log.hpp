#pragma once

#include "KlarboxKit/Platform/SystemLog.hpp"

/// Where the helper writes what it did.
namespace klarbox::Log {

/// One line per request.
const SystemLog &requests();

/// Peers that were turned away, and why the helper could not start.
const SystemLog &connections();

} // namespace klarbox::Log
