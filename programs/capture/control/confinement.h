// kp-capture: what the process gives up once it watches.
#pragma once

#include <string>
#include <vector>

namespace kp::capture {

/// Gives up, for this thread and those that it starts, what parsers of foreign bytes never need:
///
/// - all capabilities, for good. CAP_NET_RAW stays with @p watchesDevice, for a device that comes
///   back; CAP_DAC_OVERRIDE stays when one of @p writable, directories that the engine writes to,
///   belongs to somebody else, as below `sudo`.
/// - the calls of the system that start other programs, trace or read other processes, change users,
///   namespaces, mounts, kernel modules, keys or clocks: they fail with EPERM. So does every call
///   where the processor's family is not known to us.
///
/// Returns a line for the log: what is left. A system that refuses one of the two is named in it,
/// and the engine goes on: it has what it had. Called once, when everything is open and before
/// there are other threads.
std::string confine(bool watchesDevice, const std::vector<std::string>& writable);

}  // namespace kp::capture
