// One source for what a program's command line is: its help, its manual page and its completions.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

namespace kp::programs {

/// Adds --version, and reads the command line. Returns the exit status when the program has nothing
/// more to do: 0 after --help and --version, 2 after a mistake, which was told on standard error.
///
/// The build calls a program with --write-texts DIR and nothing else: it writes its manual page
/// (NAME.1) and completions (NAME.bash, NAME.zsh). No help names this.
std::optional<int> readCommandLine(CLI::App& app, int argc, char** argv);

}  // namespace kp::programs
