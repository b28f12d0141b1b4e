// The files of a database directory: one a day, and what SQLite keeps beside it.
#pragma once

#include <string>
#include <vector>

#include "day.h"

namespace kp::records {

/// The path of a day's file, YYYY-MM-DD.sqlite, in a directory.
std::string dayPath(const std::string& directory, const Day& day);

/// The days that have a file in a directory, the oldest first; other files are not looked at.
/// Throws std::filesystem::filesystem_error when the directory cannot be read.
std::vector<Day> daysIn(const std::string& directory);

/// Whether a day's file was not closed: its log of changes is beside it.
bool isOpenOrLeft(const std::string& directory, const Day& day);

/// Deletes the files of the days before @p first; whoever reads one of them goes on reading it.
/// Returns the days. Throws as daysIn().
std::vector<Day> deleteDaysBefore(const std::string& directory, const Day& first);

}  // namespace kp::records
