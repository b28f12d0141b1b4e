// kp-capture: finding the IPv4 packet behind the headers of a link.
#pragma once

#include <string_view>

namespace kp::capture {

/// Tells whether ipv4Packet() knows frames of @p linkType (libpcap's DLT_ number).
bool isKnownLink(int linkType);

/// Whether a number in the place of an Ethernet frame's protocol begins a VLAN tag.
constexpr bool isTag(unsigned type) {
    return type == 0x8100 || type == 0x88a8 || type == 0x9100;
}

/// Whether a frame has a VLAN tag.
bool hasTag(int linkType, std::string_view frame);

/// The IPv4 packet in @p frame, from its header on; empty when the frame carries none.
///
/// Known links: Ethernet with any number of VLAN tags (802.1Q, 802.1ad, 0x9100), Linux cooked
/// capture 1 and 2 (tags too), raw IP, BSD and OpenBSD loopback. The packet's own lengths are not
/// looked at.
std::string_view ipv4Packet(int linkType, std::string_view frame);

}  // namespace kp::capture
