// What a day file contains. docs/records.md is its manual.
#pragma once

#include "database.h"

namespace kp::records {

/// In the file's header (PRAGMA user_version); it goes up with every change of the tables, that
/// of a comment in them included: files are known by the text of their tables.
constexpr int kSchemaVersion = 1;

/// In the file's header (PRAGMA application_id), so that `file` and we know it: "kpdb".
constexpr int kApplicationId = 0x6B706462;

/// Seconds in a row of the table `slots`. They begin with the day, and the clocks are set by a
/// multiple of it, so any hour or day is a sum of slots.
constexpr int kSlotSeconds = 900;

/// Whether a database has the tables, just as createSchema() makes them; false for one that is
/// still empty. Throws DatabaseError when it is something else, or of another version.
bool hasSchema(Database& database);

/// Makes the tables in an empty database, within the caller's transaction.
void createSchema(Database& database);

}  // namespace kp::records
