#include "packet/segment.h"

#include <algorithm>
#include <cstddef>
#include <random>

#include "packet/bytes.h"
#include "packet/link_layer.h"

namespace kp::capture {

namespace {

constexpr unsigned kProtocolTcp = 6;
constexpr std::size_t kSmallestHeader = 20;  // of IPv4 and of TCP

std::uint64_t number(Endpoint end) {
    return std::uint64_t{end.address} << 16 | end.port;
}

}  // namespace

std::string_view SegmentReader::wholePacket(std::string_view packet, Timestamp time) {
    const std::uint64_t before = fragments_.givenUp();
    packet = fragments_.add(packet, time);
    if (fragments_.givenUp() != before)
        unread_.addFragments(fragments_.givenUp() - before);
    return packet;
}

bool SegmentReader::read(int linkType, std::string_view frame, Timestamp time, Segment& segment) {
    if (hasTag(linkType, frame))
        unread_.sawTag();
    std::string_view packet = ipv4Packet(linkType, frame);
    if (packet.empty())
        return fail(UnreadPackets::kNotIPv4);
    if (packet.size() < kSmallestHeader)
        return fail(UnreadPackets::kTruncated);
    if (byteAt(packet, 9) != kProtocolTcp)
        return fail(UnreadPackets::kNotTcp);
    if (Fragments::isFragment(packet)) {
        packet = wholePacket(packet, time);
        if (packet.empty())
            return false;
    }
    if (packet.size() < 2 * kSmallestHeader)
        return fail(UnreadPackets::kTruncated);
    const std::size_t ipSize = std::size_t{byteAt(packet, 0) & 15} * 4;
    if (ipSize < kSmallestHeader || packet.size() < ipSize + kSmallestHeader)
        return fail(UnreadPackets::kTruncated);
    const std::string_view tcp = packet.substr(ipSize);
    const std::size_t tcpSize = std::size_t{byteAt(tcp, 12) >> 4} * 4;
    // A length of 0 comes from network cards that cut large segments for the system.
    const std::size_t total = read16(packet, 2);
    const std::size_t size = total != 0 ? std::min(total, packet.size()) : packet.size();
    if (tcpSize < kSmallestHeader || size < ipSize + tcpSize)
        return fail(UnreadPackets::kTruncated);
    segment.time = time;
    segment.source = {read32(packet, 12), read16(tcp, 0)};
    segment.destination = {read32(packet, 16), read16(tcp, 2)};
    segment.sequence = read32(tcp, 4);
    segment.acknowledgement = read32(tcp, 8);
    segment.flags = static_cast<std::uint8_t>(byteAt(tcp, 13));
    segment.payload = packet.substr(ipSize + tcpSize, size - ipSize - tcpSize);
    segment.cut = static_cast<std::uint32_t>(std::max(total, size) - size);
    return true;
}

std::uint64_t mixHash(std::uint64_t low, std::uint64_t high) {
    static const std::uint64_t seed = std::uint64_t{std::random_device()()} << 32 | 1;
    // The finalizer of Austin Appleby's MurmurHash3.
    const auto spread = [](std::uint64_t value) {
        value = (value ^ value >> 33) * 0xff51afd7ed558ccdU;
        value = (value ^ value >> 33) * 0xc4ceb9fe1a85ec53U;
        return value ^ value >> 33;
    };
    return spread(spread(low ^ seed) ^ high);
}

std::uint64_t connectionHash(Endpoint a, Endpoint b) {
    const auto [low, high] = std::minmax({number(a), number(b)});
    return mixHash(low, high);
}

}  // namespace kp::capture
