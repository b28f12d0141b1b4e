// kp-capture: what the log gets of clients that are refused.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kp::capture {

/// Makes few lines of many refusals: one for the first, and while they go on one a minute with their
/// number. So guessing for a day is a hundred kilobytes, and not the disk.
///
/// The callers tell the time, which must not go back. Threads: one at a time.
class RefusalLog {
public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::seconds kPeriod{60};

    /// A client at @p address was refused. Returns the line to be logged; empty: none.
    std::string refused(std::uint32_t address, Time now);

    /// To be called now and then, and with @p isEnd at the end. Returns the line that is due.
    std::string due(Time now, bool isEnd = false);

private:
    bool isBurst_ = false;
    Time told_{};
    std::uint64_t count_ = 0;  // since then
    std::uint32_t last_ = 0;
};

}  // namespace kp::capture
