// kp-capture: what the sources of packets share in their use of libpcap.
#pragma once

#include <pcap/pcap.h>

#include <string>

#include "packet/traffic.h"

namespace kp::capture {

constexpr int kSnapLength = 262144;

/// Throws PacketSourceError for links that nobody can decode.
void refuseUnknownLink(const std::string& name, int linkType);

/// The time of a record. A damaged one can carry any number; this stays within what others can
/// compute with.
Timestamp timestampOf(const timeval& time);

}  // namespace kp::capture
