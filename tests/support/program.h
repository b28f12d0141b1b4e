// Running the product's own programs.
#pragma once

#include <string>
#include <vector>

#include "support/child.h"

namespace kp::test {

/// Runs @p path with @p arguments and without a terminal.
/// @p input is the file for its standard input; empty: /dev/null.
Outcome runProgram(const std::string& path, const std::vector<std::string>& arguments,
                   const std::string& input = "");

}  // namespace kp::test
