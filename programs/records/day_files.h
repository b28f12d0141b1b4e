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

/// The days that have one, or something that SQLite keeps beside it. Throws as daysIn().
std::vector<Day> daysWithRemains(const std::string& directory);

/// Whether a day's file was not closed: what SQLite keeps of changes is beside it.
bool isOpenOrLeft(const std::string& directory, const Day& day);

/// Whether a day's file needs a log of changes beside it to be read, as it does while it is
/// written. Throws DatabaseError.
bool needsLog(const std::string& directory, const Day& day);

/// Whether a day's file is one of ours, which its name alone does not prove. An empty file counts,
/// because an engine that is killed at the beginning leaves one.
bool isOurs(const std::string& directory, const Day& day);

/// Deletes the files of a day; whoever reads them goes on reading. Returns why one could not be
/// deleted, empty when all were.
std::string deleteDay(const std::string& directory, const Day& day);

}  // namespace kp::records
