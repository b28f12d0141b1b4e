// kp-capture: its lines in the log.
#pragma once

#include <string>

namespace kp::capture {

/// Writes a line of the engine to the log: time, "kp-capture: ", @p text. It begins on a line of
/// its own whatever was written before: some texts of the library end no line, and neither does
/// a process that was killed while it wrote. Threads: any.
void logLine(const std::string& text);

/// Ends the line that the log may end in the middle of. Threads: any.
void endLogLine();

}  // namespace kp::capture
