#include "time_text.h"

#include <cstdlib>
#include <ctime>
#include <optional>

#include "day.h"

namespace kp::records {

namespace {

constexpr std::size_t kDaySize = 10;

Span wholeDay(const Day& day) {
    return {day.start(), day.plus(1).start()};
}

// HH:MM or HH:MM:SS at a day.
std::optional<Span> partOfDay(const Day& day, std::string text) {
    const bool hasSecond = text.size() == 8;
    if (text.size() == 5)
        text += ":00";
    constexpr const char* kDigits = "0123456789";
    if (text.size() != 8 || text.find_first_not_of(kDigits) != 2 ||
        text.find_first_not_of(kDigits, 3) != 5 || text[2] != ':' || text[5] != ':' ||
        text.find_first_not_of(kDigits, 6) != std::string::npos)
        return {};
    const int hour = std::atoi(text.c_str());
    const int minute = std::atoi(text.c_str() + 3);
    const int second = std::atoi(text.c_str() + 6);
    if (hour > 23 || minute > 59 || second > 59)
        return {};
    const std::int64_t start = day.at((hour * 60 + minute) * 60 + second);
    return Span{start, start + (hasSecond ? 1 : 60)};
}

}  // namespace

Span parseTime(const std::string& text) {
    if (text == "now") {
        const std::int64_t now = std::time(nullptr);
        return {now, now + 1};
    }
    if (text == "today")
        return wholeDay(today());
    if (text == "yesterday")
        return wholeDay(today().plus(-1));
    const std::optional<Day> day = parseDay(text.substr(0, kDaySize));
    std::optional<Span> span;
    if (day && text.size() == kDaySize)
        return wholeDay(*day);
    if (day && (text[kDaySize] == ' ' || text[kDaySize] == 'T'))
        span = partOfDay(*day, text.substr(kDaySize + 1));
    if (!span) {
        throw TimeTextError("'" + text +
                            "' is not a time; give YYYY-MM-DD, 'YYYY-MM-DD HH:MM', "
                            "'YYYY-MM-DD HH:MM:SS', today, yesterday or now");
    }
    return *span;
}

std::string timeText(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm tm = {};
    char text[40] = "";
    if (localtime_r(&time, &tm) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

}  // namespace kp::records
