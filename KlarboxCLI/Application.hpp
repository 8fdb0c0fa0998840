#pragma once

namespace klarbox {

/// The application from its arguments to its exit code. Called once, from `main`.
int runApplication(int argc, char **argv);

} // namespace klarbox
