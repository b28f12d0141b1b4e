// kp-capture: how many packets there were.
#pragma once

#include <atomic>
#include <cstdint>

namespace kp::capture {

/// What readers count of packets. Threads: any.
struct PacketCounts {
    std::atomic<std::uint64_t> packets{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> filteredOut{0};
    std::atomic<std::uint64_t> dropped{0};  ///< by the system
};

}  // namespace kp::capture
