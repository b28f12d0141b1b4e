// kp-capture: the plain values that every stage passes on.
#pragma once

#include <cstdint>

namespace kp::capture {

/// Microseconds by the times of the packets, never going back: what decides how long something
/// lasts.
using CaptureTime = std::int64_t;
constexpr CaptureTime kOneSecond = 1000000;

/// The time of a packet, as the capture tells it.
struct Timestamp {
    std::int64_t seconds = 0;        ///< since 1970
    std::uint32_t microseconds = 0;  ///< 0 to 999999
};

/// One end of a TCP connection; the address is in host byte order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
};

}  // namespace kp::capture
