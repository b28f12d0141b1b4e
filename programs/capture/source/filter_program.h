// kp-capture: packet filters that are compiled where they are checked.
#pragma once

#include <pcap/pcap.h>

#include <memory>
#include <string>

namespace kp::capture {

/// A filter in the form in which it runs; null for the empty filter.
using FilterProgram = std::shared_ptr<const bpf_program>;

// Compiling looks up the names of hosts in a filter, which can take seconds and give another answer
// each time. So whoever checks a filter compiles it, and whoever reads packets gets what was
// compiled. Both may be called on any thread.

/// Compiles a filter for links of a type (libpcap's DLT_ number), and of all types for which
/// programs were asked for before. Throws PacketSourceError, which says why, when it is
/// refused for that type.
FilterProgram compileFilter(const std::string& filter, int linkType);

/// What compileFilter() has made last of a filter; compiles it when that has not been.
FilterProgram filterProgram(const std::string& filter, int linkType);

/// Whether a filter has to be compiled with the device that it is for: that alone knows whether the
/// tags of packets are still in their bytes.
bool needsDevice(const std::string& filter);

}  // namespace kp::capture
