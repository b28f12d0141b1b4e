// kp-capture: writes the transactions of one day into its file.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "http/transaction.h"
#include "output/judgement.h"
#include "records/database.h"
#include "records/day.h"

namespace kp::capture {

/// What the tables of a day count of some of its rows.
struct Totals {
    std::int64_t requests = 0;
    std::int64_t bodyBytes = 0;
    std::int64_t answers = 0;
    std::int64_t responseTime = 0;

    void add(const Transaction& transaction);
};

/// One table of totals: keeps what was added since the last commit, and adds it to the table then.
///
/// It remembers what it has seen, up to a limit, so that most rows cost no look into the file.
template <class Key>
class TotalsTable {
public:
    /// @p table has its key in the column @p column.
    TotalsTable(records::Database& database, const std::string& table, const std::string& column);

    /// Counts a row; returns the id of the table's row.
    std::int64_t add(const Key& key, const Transaction& transaction);
    /// Adds what was counted to the table.
    void write();

private:
    static constexpr std::size_t kMostKnown = 65536;

    struct Entry {
        std::int64_t id = 0;
        Totals added;
    };
    std::int64_t idOf(const Key& key);

    records::Statement insert_;
    records::Statement find_;
    records::Statement update_;
    std::unordered_map<Key, Entry> known_;
    std::vector<Entry*> changed_;
};

/// An open day file.
///
/// Rows are in the file after commit(). The file survives the end of its process at any moment;
/// SQLite keeps the latest changes beside it, and puts them in when the last one closes it. All
/// operations throw records::DatabaseError and can fail for want of disk; then the rows since the
/// last commit are lost, and the writer is good for nothing but its end. Only add() may be called
/// again when the error is busy: then somebody else is writing, and nothing has been done.
/// Threads: one.
class DayWriter {
public:
    /// Opens the file of a day, or makes it. @p isDurable: what was committed survives the end of
    /// the whole machine, too; that costs a wait for the disk each time. @p patience: how long
    /// somebody else may have the file locked.
    DayWriter(const std::string& directory, const records::Day& day, bool isDurable,
              std::chrono::milliseconds patience);

    const records::Day& day() const { return day_; }
    void add(const Transaction& transaction, const Judgement& judgement);
    /// Rows since the last commit.
    std::size_t uncommitted() const { return uncommitted_; }
    void commit();

private:
    struct Slot {
        Totals totals;
        std::int64_t byClass[6] = {};  // by the first digit of the status
        std::int64_t content = 0;
        std::int64_t validPages = 0;
        std::int64_t entryPoints = 0;
    };

    static records::Database openFile(const std::string& path, bool isDurable,
                                      std::chrono::milliseconds patience);
    void insert(const Transaction& transaction, const Judgement& judgement);
    void count(const Transaction& transaction, const Judgement& judgement);
    void writeSlots();
    const std::string& escaped(const std::string& text);

    records::Day day_;
    std::int64_t dayStart_;  // seconds since 1970
    records::Database database_;
    TotalsTable<std::string> methods_;
    TotalsTable<std::string> hosts_;
    TotalsTable<std::string> types_;
    TotalsTable<std::int64_t> clients_;
    TotalsTable<std::int64_t> servers_;
    std::unordered_map<std::int64_t, Slot> slots_;
    records::Statement insert_;
    records::Statement slot_;
    std::size_t uncommitted_ = 0;
    std::string escaped_;
};

}  // namespace kp::capture
