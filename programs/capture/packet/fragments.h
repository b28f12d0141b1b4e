// kp-capture: IPv4 packets put together from their fragments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "packet/traffic.h"

namespace kp::capture {

/// Collects fragments until their packet is whole. Of bytes that come twice the first copy counts.
///
/// Memory: at most kMostPackets unfinished packets, of 64 KiB each at most; the oldest goes first.
/// One whose first fragment came more than kSeconds ago is not finished any more.
class Fragments {
public:
    static constexpr std::size_t kMostPackets = 64;
    static constexpr std::int64_t kSeconds = 30;

    /// Takes an IPv4 packet, from its header on, that isFragment() is true of. Returns the whole
    /// packet when this completes it, valid until the next call; else nothing.
    std::string_view add(std::string_view packet, Timestamp time);

    /// Whether a packet of 20 bytes at least is a fragment.
    static bool isFragment(std::string_view packet);

    /// Packets that were given up.
    std::uint64_t givenUp() const { return givenUp_; }
    /// Packets that are not whole yet.
    std::size_t unfinished() const { return packets_.size(); }

private:
    struct Range {
        std::uint32_t begin;
        std::uint32_t end;
    };
    struct Unfinished {
        std::int64_t since = 0;
        std::string header;          // of the first fragment; empty until it came
        std::string data;            // as far as it is known
        std::vector<Range> missing;  // in order
        bool knowsEnd = false;
    };
    // Source and destination, identification, protocol.
    using Key = std::tuple<std::uint32_t, std::uint32_t, std::uint16_t, std::uint8_t>;

    void giveUp(std::deque<Key>::iterator place);
    static void fill(Unfinished& packet, std::uint32_t begin, std::string_view bytes);

    std::map<Key, Unfinished> packets_;
    std::deque<Key> byAge_;
    std::string whole_;
    std::uint64_t givenUp_ = 0;
};

}  // namespace kp::capture
