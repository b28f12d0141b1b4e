// kp-capture: what was seen and not understood, by reason.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kp::capture {

/// Numbers of packets without a TCP segment that can be read, and of connections without HTTP.
struct Unread {
    std::uint64_t notIPv4 = 0;  ///< ARP, IPv6 and everything else
    std::uint64_t notTcp = 0;
    std::uint64_t truncated = 0;  ///< a header is cut off, or says what cannot be
    std::uint64_t fragments = 0;  ///< IPv4 packets of which fragments are missing
    std::uint64_t notHttp = 0;    ///< connections that carried data

    /// Each with its name in the status.
    std::vector<std::pair<std::string, std::uint64_t>> named() const;
    /// A line of the summary without its label; empty when there is nothing to say.
    std::string text() const;
};

/// Counts packets. Threads: one counts, any may ask.
class UnreadPackets {
public:
    enum Reason : std::size_t { kNotIPv4, kNotTcp, kTruncated, kReasons };

    void add(Reason reason) { increase(counts_[reason], 1); }
    void addFragments(std::uint64_t packets) { increase(fragments_, packets); }
    void sawTag() { sawTag_.store(true, std::memory_order_relaxed); }

    /// Whether there were frames with a VLAN tag.
    bool hasSeenTags() const { return sawTag_; }
    void addTo(Unread& unread) const;

private:
    // One thread adds, so nothing is lost between the two halves.
    static void increase(std::atomic<std::uint64_t>& count, std::uint64_t by) {
        count.store(count.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    }

    std::array<std::atomic<std::uint64_t>, kReasons> counts_{};
    std::atomic<std::uint64_t> fragments_{0};
    std::atomic<bool> sawTag_{false};
};

}  // namespace kp::capture
