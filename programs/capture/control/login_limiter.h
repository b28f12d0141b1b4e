// kp-capture: how often a password may be tried.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>

namespace kp::capture {

/// Bounds how fast passwords can be guessed, and lets those in who have been in before.
///
/// Addresses that nobody has logged in from share 20 attempts a second, of which one address gets
/// one. An address that somebody has logged in from waits for nobody, and neither does 127.0.0.1,
/// until ten attempts from there have failed; of these one a second is forgotten.
///
/// Memory: the addresses of the last second that had an attempt, at most 21, and the kMostKnown
/// that logged in last. The callers tell the time, which must not go back.
/// Threads: one at a time.
class LoginLimiter {
public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kPauseOfOne{1000};
    static constexpr std::chrono::milliseconds kPauseOfAll{50};
    static constexpr int kFreeFailures = 10;
    static constexpr std::size_t kMostKnown = 1024;

    /// Asks for an attempt from @p address. Nothing is returned when it may be made, which counts
    /// it; else the time at which asking again may help.
    std::optional<Time> ask(std::uint32_t address, Time now);

    /// What became of an attempt.
    void succeeded(std::uint32_t address);
    void failed(std::uint32_t address, Time now);

    /// Whether somebody has logged in from there, or it is 127.0.0.1.
    bool isKnown(std::uint32_t address) const { return known_.count(address) != 0; }

    LoginLimiter();

private:
    struct Known {
        std::list<std::uint32_t>::iterator place;
        Time forgotten{};  // when its failures are
    };

    bool isFree(std::uint32_t address, Time now) const;

    std::map<std::uint32_t, Known> known_;
    std::list<std::uint32_t> order_;           // of the last login, without 127.0.0.1; latest first
    std::map<std::uint32_t, Time> strangers_;  // when each may be asked for again
    Time next_{};                              // and any of them
};

}  // namespace kp::capture
