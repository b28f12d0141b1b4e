#include "packet/link_layer.h"

#include <pcap/pcap.h>

#include <cstddef>

#include "packet/bytes.h"

namespace kp::capture {

namespace {

constexpr unsigned kTypeIPv4 = 0x0800;

// Steps over VLAN tags: the protocol number stands at @p typeAt, the payload begins at @p
// payloadAt.
std::string_view behindTags(std::string_view frame, std::size_t typeAt, std::size_t payloadAt) {
    if (frame.size() < payloadAt)
        return {};
    unsigned type = read16(frame, typeAt);
    while (isTag(type)) {
        if (frame.size() < payloadAt + 4)
            return {};
        type = read16(frame, payloadAt + 2);
        payloadAt += 4;
    }
    return type == kTypeIPv4 ? frame.substr(payloadAt) : std::string_view();
}

// The address family is a 32-bit number in the byte order of whoever captured; IPv4 is 2 anywhere.
std::string_view behindFamily(std::string_view frame) {
    if (frame.size() < 4)
        return {};
    const unsigned high = read16(frame, 0);
    const unsigned low = read16(frame, 2);
    const bool isIPv4 = (high == 0x0200 && low == 0) || (high == 0 && low == 2);
    return isIPv4 ? frame.substr(4) : std::string_view();
}

}  // namespace

bool isKnownLink(int linkType) {
    switch (linkType) {
        case DLT_EN10MB:
        case DLT_LINUX_SLL:
        case DLT_LINUX_SLL2:
        case DLT_RAW:
        case DLT_IPV4:
        case DLT_NULL:
        case DLT_LOOP:
            return true;
        default:
            return false;
    }
}

bool hasTag(int linkType, std::string_view frame) {
    return linkType == DLT_EN10MB && frame.size() >= 14 && isTag(read16(frame, 12));
}

std::string_view ipv4Packet(int linkType, std::string_view frame) {
    std::string_view packet;
    switch (linkType) {
        case DLT_EN10MB:
            packet = behindTags(frame, 12, 14);
            break;
        case DLT_LINUX_SLL:
            packet = behindTags(frame, 14, 16);
            break;
        case DLT_LINUX_SLL2:
            packet = behindTags(frame, 0, 20);
            break;
        case DLT_RAW:
        case DLT_IPV4:
            packet = frame;
            break;
        case DLT_NULL:
        case DLT_LOOP:
            packet = behindFamily(frame);
            break;
        default:
            break;
    }
    const bool isIPv4 = !packet.empty() && byteAt(packet, 0) >> 4 == 4;
    return isIPv4 ? packet : std::string_view();
}

}  // namespace kp::capture
