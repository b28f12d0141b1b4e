// kp-query: what the file of a day may hold.
#pragma once

#include <cstdint>
#include <string>

#include "groups.h"
#include "records/database.h"
#include "records/day.h"

namespace kp::query {

/// The open file of a day. It may come from anywhere, so what is read of it is checked: an engine
/// cannot have written a number that is refused here. Refusals are a records::DatabaseError.
///
/// Threads: one.
class DayFile {
public:
    DayFile(records::Database& database, const records::Day& day);

    records::Database& database() const { return database_; }

    /// When the first slot of the day began, in seconds since 1970.
    std::int64_t firstSlot() const;

    // Numbers of a row, by their columns.
    /// Microseconds since 1970, of the day, in whatever time zone.
    std::int64_t time(const records::Statement& row, int column) const;
    /// Seconds since 1970, of the day, in whatever time zone.
    std::int64_t seconds(const records::Statement& row, int column) const;
    /// A number of requests or bytes.
    std::int64_t count(const records::Statement& row, int column) const;
    /// A number from 0 to @p most.
    std::int64_t upTo(std::int64_t most, const records::Statement& row, int column) const;
    /// Four columns: requests, bytes, answers, time of all answers.
    Sums sums(const records::Statement& row, int column) const;
    /// The sums of one request, whose time until the answer is NULL without one.
    Sums sumsOfOne(const records::Statement& row, int bytes, int responseTime) const;

    /// A text that is to be kept until all is read: together they are no more than the file holds.
    std::string kept(const records::Statement& row, int column);

    /// Throws.
    [[noreturn]] void refuse(const std::string& what) const;

private:
    std::int64_t within(std::int64_t low, std::int64_t high, const records::Statement& row,
                        int column) const;
    void checkResponse(std::int64_t time, std::int64_t answers) const;

    records::Database& database_;
    std::int64_t earliest_;  // seconds since 1970
    std::int64_t latest_;
    std::int64_t left_;  // bytes of texts that may still be kept
};

}  // namespace kp::query
