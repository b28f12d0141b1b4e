// Moments as people write them.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace kp::records {

/// A text that names no moment; what() is a sentence for the user.
class TimeTextError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Seconds since 1970, from start on and before end: a second, a minute or a whole day.
struct Span {
    std::int64_t start;
    std::int64_t end;
};

/// What YYYY-MM-DD, "YYYY-MM-DD HH:MM", "YYYY-MM-DD HH:MM:SS" (a T may stand for the blank), today,
/// yesterday or now mean in local time. Throws TimeTextError.
Span parseTime(const std::string& text);

/// A moment as YYYY-MM-DD HH:MM:SS in local time.
std::string timeText(std::int64_t seconds);

}  // namespace kp::records
