// kp-query: reading the files of several days.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "day_file.h"
#include "filter.h"
#include "records/day.h"

namespace kp::query {

/// The days of a directory that a filter touches, the oldest first.
std::vector<records::Day> daysFor(const std::string& directory, const Filter& filter);

using DayFunction = std::function<void(DayFile&)>;

/// Gives the open file of a day to @p read, which sees it as it is at this moment, whatever an
/// engine adds to it. A day that has been deleted, or has no tables yet, is skipped.
/// Returns false when the file cannot be read, or holds what cannot be, which it tells on standard
/// error.
bool readDay(const std::string& directory, const records::Day& day, const DayFunction& read);

/// readDay() for all those days, as many at a time as the machine has processors: @p read runs on
/// several threads, and in no order. Returns false when
/// one of the files cannot be read; what else @p read throws is thrown when all have ended.
bool readDays(const std::string& directory, const Filter& filter, const DayFunction& read);

}  // namespace kp::query
