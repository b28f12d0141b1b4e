// Days of the local calendar, and the moments at which they begin.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

namespace kp::records {

/// A day of the local calendar: the zone of TZ, or the system's.
struct Day {
    int year = 1970;
    int month = 1;  ///< 1 to 12
    int day = 1;    ///< 1 to 31

    bool operator==(const Day& other) const { return key() == other.key(); }
    bool operator!=(const Day& other) const { return key() != other.key(); }
    bool operator<(const Day& other) const { return key() < other.key(); }

    /// YYYY-MM-DD.
    std::string text() const;
    /// So many days later, or earlier when @p days is negative.
    Day plus(int days) const;
    /// Its first moment, in seconds since 1970.
    std::int64_t start() const;
    /// The moment at which clocks show a time of that day, so many seconds after 00:00:00.
    std::int64_t at(int seconds) const;

private:
    std::tuple<int, int, int> key() const { return {year, month, day}; }
};

/// The day of exactly the form YYYY-MM-DD, years 1969 to 9999; none when the text is no such day.
std::optional<Day> parseDay(std::string_view text);

/// The day of a moment in seconds since 1970; none outside the years 1969 to 9999. Where clocks
/// were set back over midnight (St. John's until 2011), a DayFinder puts the repeated hour into the
/// day that had begun.
std::optional<Day> dayOf(std::int64_t seconds);

/// The day that it is now.
Day today();

/// dayOf() for many moments that lie close together: asks the calendar once a day.
///
/// Threads: one.
class DayFinder {
public:
    std::optional<Day> dayOf(std::int64_t seconds);

private:
    Day day_;
    std::int64_t start_ = 0;  // the day is known for [start_, end_)
    std::int64_t end_ = 0;
};

}  // namespace kp::records
