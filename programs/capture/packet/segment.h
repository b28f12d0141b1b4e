// kp-capture: the TCP segment in a captured frame.
#pragma once

#include <cstdint>
#include <string_view>

#include "packet/fragments.h"
#include "packet/traffic.h"
#include "packet/unread.h"

namespace kp::capture {

/// What the headers of a segment say, and its data.
struct Segment {
    static constexpr std::uint8_t kFin = 1;
    static constexpr std::uint8_t kSyn = 2;
    static constexpr std::uint8_t kReset = 4;
    static constexpr std::uint8_t kAck = 16;

    bool has(std::uint8_t flag) const { return (flags & flag) != 0; }

    std::uint64_t number = 0;  ///< of its packet in the capture
    Timestamp time;
    CaptureTime clock = 0;
    Endpoint source;
    Endpoint destination;
    std::uint32_t sequence = 0;         ///< of the first byte of the payload, or of the SYN
    std::uint32_t acknowledgement = 0;  ///< with kAck
    std::uint8_t flags = 0;
    std::string_view payload;  ///< points into the frame, or is valid until the next one is read
    std::uint32_t cut = 0;     ///< bytes behind it that were cut off at the snap length
};

/// Finds segments in frames.
class SegmentReader {
public:
    /// Reads a frame of libpcap's link type @p linkType; false when it holds no whole IPv4 and TCP
    /// header pair, or a fragment of a packet that is not whole yet. Of a packet in fragments the
    /// time is that of the last one.
    bool read(int linkType, std::string_view frame, Timestamp time, Segment& segment);

    /// What it could not read. At the end, finish() also counts what will never be whole.
    const UnreadPackets& unread() const { return unread_; }
    void finish() { unread_.addFragments(fragments_.unfinished()); }

private:
    std::string_view wholePacket(std::string_view packet, Timestamp time);
    bool fail(UnreadPackets::Reason reason) {
        unread_.add(reason);
        return false;
    }

    UnreadPackets unread_;
    Fragments fragments_;
};

/// A hash of two numbers. Its seed is random, so nobody outside can choose pairs that collide.
std::uint64_t mixHash(std::uint64_t low, std::uint64_t high);

/// A number that both directions of a connection share, and that spreads well.
std::uint64_t connectionHash(Endpoint a, Endpoint b);

}  // namespace kp::capture
