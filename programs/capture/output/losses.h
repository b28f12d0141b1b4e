// kp-capture: what was lost, and saying so.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kp::capture {

/// What never became a row, since the start.
struct Lost {
    std::uint64_t bySystem = 0;     ///< packets: our buffer in the system was full
    std::uint64_t byInterface = 0;  ///< packets: they never got so far
    std::uint64_t left = 0;         ///< packets: there was no time for them at the end
    std::uint64_t rows = 0;         ///< transactions: the disk did not take them

    bool any() const { return bySystem != 0 || byInterface != 0 || left != 0 || rows != 0; }
};

/// Puts losses into words for the log, as soon as they begin, and then at most once a minute.
class LossTeller {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kPeriod{60};

    /// What was lost since it last said something; empty when that is nothing, or when it is not
    /// yet time to speak again. With @p isLast it is always time.
    std::string tell(const Lost& lost, Clock::time_point now, bool isLast = false);

private:
    Lost told_;
    std::optional<Clock::time_point> toldAt_;
};

/// Counts the packets that a network interface has received and dropped, by its own account.
///
/// What it ran out of memory or time for is in rx_missed_errors and rx_fifo_errors; some drivers
/// count it in rx_dropped only. There the system also counts frames with a VLAN tag and a protocol
/// that it does not know, though we capture them: whoever has seen tags leaves rx_dropped out.
///
/// A device that vanishes and comes again begins with 0. Threads: one at a time.
class InterfaceDrops {
public:
    /// Counts from now on. Of a @p device that is none, or not one interface ("any"), the count
    /// stays 0.
    explicit InterfaceDrops(std::string device);

    /// Looks again, and returns how many there were in all.
    std::uint64_t count(bool hasSeenTags);

private:
    /// The interface's own 32-bit counters; they may begin anew at any time.
    struct Counters {
        std::uint32_t missed = 0;
        std::uint32_t dropped = 0;
    };
    std::optional<Counters> look() const;

    const std::string device_;
    Counters last_;
    std::uint64_t missed_ = 0;
    std::uint64_t dropped_ = 0;
};

}  // namespace kp::capture
