#include "day_file.h"

namespace kp::query {

namespace {

constexpr std::int64_t kMicroseconds = 1000000;             // in a second
constexpr std::int64_t kMostCount = std::int64_t{1} << 53;  // requests or bytes in a day
// As long as kp-capture waits for an answer; packets whose times are confused make it negative.
constexpr std::int64_t kLongestResponse = (86400 + 1) * kMicroseconds;
constexpr std::int64_t kShortestResponse = -2 * kMicroseconds;

}  // namespace

DayFile::DayFile(records::Database& database, const records::Day& day)
    : database_(database),
      earliest_(day.plus(-1).start()),
      latest_(day.plus(2).start()),
      left_(database.bytes()) {}

void DayFile::refuse(const std::string& what) const {
    throw records::DatabaseError(database_.path() + " is damaged: " + what);
}

std::int64_t DayFile::within(std::int64_t low, std::int64_t high, const records::Statement& row,
                             int column) const {
    const std::int64_t number = row.number(column);
    if (!row.isNumber(column) || number < low || number > high)
        refuse("it holds a number that cannot be");
    return number;
}

std::int64_t DayFile::firstSlot() const {
    records::Statement first(database_, "SELECT min(start) FROM slots");
    return first.step() && !first.isNull(0) ? seconds(first, 0) : earliest_;
}

std::int64_t DayFile::time(const records::Statement& row, int column) const {
    const std::int64_t time = row.number(column);
    if (!row.isNumber(column) || time < earliest_ * kMicroseconds ||
        time >= latest_ * kMicroseconds)
        refuse("it holds a time that is not of its day");
    return time;
}

std::int64_t DayFile::seconds(const records::Statement& row, int column) const {
    const std::int64_t seconds = row.number(column);
    if (!row.isNumber(column) || seconds < earliest_ || seconds >= latest_)
        refuse("it holds a time that is not of its day");
    return seconds;
}

std::int64_t DayFile::count(const records::Statement& row, int column) const {
    return within(0, kMostCount, row, column);
}

std::int64_t DayFile::upTo(std::int64_t most, const records::Statement& row, int column) const {
    return within(0, most, row, column);
}

void DayFile::checkResponse(std::int64_t time, std::int64_t answers) const {
    const std::int64_t limit = time < 0 ? kShortestResponse : kLongestResponse;
    if (time / limit > answers || (answers == 0 && time != 0))
        refuse("it holds a number that cannot be");
}

Sums DayFile::sums(const records::Statement& row, int column) const {
    Sums sums;
    sums.requests = count(row, column);
    sums.bodyBytes = count(row, column + 1);
    sums.answers = upTo(sums.requests, row, column + 2);
    sums.responseTime = within(INT64_MIN, INT64_MAX, row, column + 3);
    checkResponse(sums.responseTime, sums.answers);
    return sums;
}

Sums DayFile::sumsOfOne(const records::Statement& row, int bytes, int responseTime) const {
    Sums sums{1, count(row, bytes), 0, 0};
    if (!row.isNull(responseTime)) {
        sums.answers = 1;
        sums.responseTime = within(kShortestResponse, kLongestResponse, row, responseTime);
    }
    return sums;
}

std::string DayFile::kept(const records::Statement& row, int column) {
    const std::string_view text = row.text(column);
    left_ -= static_cast<std::int64_t>(text.size());
    if (left_ < 0)
        refuse("its texts are longer than the file");
    return std::string(text);
}

}  // namespace kp::query
