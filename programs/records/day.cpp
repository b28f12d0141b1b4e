#include "day.h"

#include <cstdio>
#include <ctime>

namespace kp::records {

namespace {

constexpr int kFirstYear = 1969;  // the first moment of 1970 in zones behind UTC
constexpr int kLastYear = 9999;

std::tm tmOf(const Day& day) {
    std::tm tm = {};
    tm.tm_year = day.year - 1900;
    tm.tm_mon = day.month - 1;
    tm.tm_mday = day.day;
    return tm;
}

Day dayOfTm(const std::tm& tm) {
    Day day;
    day.year = tm.tm_year + 1900;
    day.month = tm.tm_mon + 1;
    day.day = tm.tm_mday;
    return day;
}

// Seconds by which local time is ahead of UTC.
long offsetAt(std::time_t time) {
    std::tm tm = {};
    return localtime_r(&time, &tm) != nullptr ? tm.tm_gmtoff : 0;
}

int digits(std::string_view text) {
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

}  // namespace

std::string Day::text() const {
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, month, day);
    return text;
}

Day Day::plus(int days) const {
    std::tm tm = tmOf(*this);
    tm.tm_mday += days;
    timegm(&tm);  // puts the fields right
    return dayOfTm(tm);
}

std::int64_t Day::at(int seconds) const {
    std::tm tm = tmOf(*this);
    const std::time_t utc = timegm(&tm) + seconds;
    return utc - offsetAt(utc - offsetAt(utc));
}

// The first moment that is not before the day: clocks may be set at midnight, and whole days are
// left out. Not by mktime(), which reads the zone's file anew each time, and finds either of two
// midnights.
std::int64_t Day::start() const {
    constexpr std::int64_t kFarthest = std::int64_t{26} * 3600;  // of local time from UTC
    std::tm tm = tmOf(*this);
    const std::int64_t utc = timegm(&tm);
    std::int64_t before = utc - kFarthest;
    std::int64_t after = utc + kFarthest;
    while (after - before > 1) {
        const std::int64_t middle = before + (after - before) / 2;
        const std::optional<Day> found = records::dayOf(middle);
        (found && *found < *this ? before : after) = middle;
    }
    return after;
}

std::optional<Day> parseDay(std::string_view text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-')
        return {};
    Day day;
    day.year = digits(text.substr(0, 4));
    day.month = digits(text.substr(5, 2));
    day.day = digits(text.substr(8));
    const bool isDay = day.year >= kFirstYear && day.month >= 1 && day.day >= 1 && day.month <= 12;
    // The calendar moves what does not exist, the 30th of February, say.
    if (!isDay || day.plus(0) != day)
        return {};
    return day;
}

std::optional<Day> dayOf(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm tm = {};
    if (localtime_r(&time, &tm) == nullptr)
        return {};
    if (tm.tm_year < kFirstYear - 1900 || tm.tm_year > kLastYear - 1900)
        return {};
    return dayOfTm(tm);
}

Day today() {
    return dayOf(std::time(nullptr)).value_or(Day());
}

std::optional<Day> DayFinder::dayOf(std::int64_t seconds) {
    if (seconds >= start_ && seconds < end_)
        return day_;
    const std::optional<Day> day = records::dayOf(seconds);
    if (day) {
        day_ = *day;
        start_ = day->start();
        end_ = day->plus(1).start();
    }
    return day;
}

}  // namespace kp::records
