// One source for what a program's command line is: its help, its manual page and its completions.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

namespace kp::programs {

/// Adds --version, and the hidden --write-texts DIR, with which the build makes the manual page (NAME.1)
/// and the completions (NAME.bash, NAME.zsh); then reads the command line. Returns the exit status
/// when the program has nothing more to do: 0 after those and --help, 2 after a mistake, which was
/// told on standard error.
std::optional<int> readCommandLine(CLI::App& app, int argc, char** argv);

}  // namespace kp::programs
