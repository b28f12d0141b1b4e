// Whether a general configuration file is what it has to be, beside the library's own reader.
#pragma once

#include <istream>
#include <string>

namespace kp::programs {

/// Looks whether every block of a general configuration file stands where it belongs. Returns what
/// is wrong, with the number of the line; empty when nothing is.
///
/// The library's reader counts lines and looks at none. In a file with a line too many, or with one
/// that is too long to be read at once, it takes all that follows from the wrong lines, and what
/// it does not find there is empty: a file that is shifted by one line has no password and no
/// networks. What this accepts, that reader reads from the lines that were meant, and the
/// password is not empty.
///
/// Reads no further than the first fault, and keeps one line at a time.
std::string generalFileFault(std::istream& file);

/// The same for the file at @p path, which has to be a regular one; the fault names the path.
std::string generalFileFault(const std::string& path);

}  // namespace kp::programs
