#include "output/day_writer.h"

#include "common/printable.h"
#include "records/day_files.h"
#include "records/schema.h"

namespace kp::capture {

using records::Database;
using records::Statement;

void Totals::add(const Transaction& transaction) {
    ++requests;
    bodyBytes += static_cast<std::int64_t>(transaction.bodyBytes);
    if (transaction.responseTime) {
        ++answers;
        responseTime += *transaction.responseTime;
    }
}

namespace {

// Binds the four columns that all tables of totals have; returns the next parameter.
int bindTotals(Statement& statement, int parameter, const Totals& totals) {
    for (const std::int64_t value :
         {totals.requests, totals.bodyBytes, totals.answers, totals.responseTime})
        statement.bind(parameter++, value);
    return parameter;
}

}  // namespace

// The table chooses the id of a name. An address is its own id.
template <class Key>
TotalsTable<Key>::TotalsTable(Database& database, const std::string& table,
                              const std::string& column)
    : insert_(database, "INSERT INTO " + table + " (" + column +
                            ", requests, body_bytes, answers, response_time) "
                            "VALUES (?, 0, 0, 0, 0) ON CONFLICT DO NOTHING"),
      find_(database, "SELECT rowid FROM " + table + " WHERE " + column + " = ?"),
      update_(database, "UPDATE " + table +
                            " SET requests = requests + ?, body_bytes = body_bytes + ?, "
                            "answers = answers + ?, response_time = response_time + ? "
                            "WHERE rowid = ?") {}

template <class Key>
std::int64_t TotalsTable<Key>::idOf(const Key& key) {
    insert_.bind(1, key);
    insert_.run();
    find_.bind(1, key);
    find_.step();
    const std::int64_t id = find_.number(0);
    find_.reset();
    return id;
}

template <class Key>
std::int64_t TotalsTable<Key>::add(const Key& key, const Transaction& transaction) {
    const auto [place, isNew] = known_.try_emplace(key);
    Entry& entry = place->second;
    if (isNew)
        entry.id = idOf(key);
    if (entry.added.requests == 0)
        changed_.push_back(&entry);
    entry.added.add(transaction);
    return entry.id;
}

template <class Key>
void TotalsTable<Key>::write() {
    for (Entry* entry : changed_) {
        update_.bind(bindTotals(update_, 1, entry->added), entry->id);
        update_.run();
        entry->added = Totals();
    }
    changed_.clear();
    if (known_.size() > kMostKnown)
        known_.clear();
}

Database DayWriter::openFile(const std::string& path, bool isDurable,
                             std::chrono::milliseconds patience) {
    Database database(path, Database::Access::kWrite, patience);
    // Before anything is changed: it may be somebody else's.
    records::hasSchema(database);
    // From here on readers and the writer do not keep each other waiting, and whoever is killed
    // leaves a whole file.
    database.execute("PRAGMA journal_mode = WAL");
    database.execute(isDurable ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    database.execute("PRAGMA cache_size = -4096");
    database.execute("PRAGMA wal_autocheckpoint = 4096");
    database.execute("BEGIN IMMEDIATE");
    if (!records::hasSchema(database))
        records::createSchema(database);
    database.execute("COMMIT");
    return database;
}

DayWriter::DayWriter(const std::string& directory, const records::Day& day, bool isDurable,
                     std::chrono::milliseconds patience)
    : day_(day),
      dayStart_(day.start()),
      database_(openFile(records::dayPath(directory, day), isDurable, patience)),
      methods_(database_, "methods", "name"),
      hosts_(database_, "hosts", "name"),
      types_(database_, "types", "name"),
      clients_(database_, "clients", "address"),
      servers_(database_, "servers", "address"),
      insert_(database_,
              "INSERT INTO transactions (time, response_time, client, client_port, server, "
              "server_port, method, host, status, type, body_bytes, in_ranges, content, "
              "valid_page, entry_point, target) "
              "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      slot_(database_,
            "INSERT INTO slots VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) "
            "ON CONFLICT (start) DO UPDATE SET requests = requests + excluded.requests, "
            "body_bytes = body_bytes + excluded.body_bytes, "
            "answers = answers + excluded.answers, "
            "response_time = response_time + excluded.response_time, "
            "status_2xx = status_2xx + excluded.status_2xx, "
            "status_3xx = status_3xx + excluded.status_3xx, "
            "status_4xx = status_4xx + excluded.status_4xx, "
            "status_5xx = status_5xx + excluded.status_5xx, "
            "content = content + excluded.content, "
            "valid_pages = valid_pages + excluded.valid_pages, "
            "entry_points = entry_points + excluded.entry_points") {}

// Valid until the next call.
const std::string& DayWriter::escaped(const std::string& text) {
    escaped_.clear();
    programs::appendPrintable(escaped_, text, programs::Backslash::kEscape);
    return escaped_;
}

void DayWriter::add(const Transaction& transaction, const Judgement& judgement) {
    if (!database_.isInTransaction())
        database_.execute("BEGIN IMMEDIATE");
    insert(transaction, judgement);
    count(transaction, judgement);
    ++uncommitted_;
}

void DayWriter::insert(const Transaction& transaction, const Judgement& judgement) {
    int parameter = 0;
    const auto bind = [&](auto value) { insert_.bind(++parameter, std::int64_t{value}); };
    const auto bindIf = [&](bool isKnown, std::int64_t value) {
        isKnown ? insert_.bind(++parameter, value) : insert_.bindNull(++parameter);
    };
    bind(transaction.time.seconds * 1000000 + transaction.time.microseconds);
    bindIf(transaction.responseTime.has_value(), transaction.responseTime.value_or(0));
    bind(clients_.add(transaction.client.address, transaction));
    bind(transaction.client.port);
    bind(servers_.add(transaction.server.address, transaction));
    bind(transaction.server.port);
    bind(methods_.add(escaped(transaction.method), transaction));
    bind(hosts_.add(escaped(transaction.host), transaction));
    bindIf(transaction.status != 0, transaction.status);
    bind(types_.add(escaped(transaction.contentType), transaction));
    bind(static_cast<std::int64_t>(transaction.bodyBytes));
    for (const bool value :
         {judgement.inRanges, judgement.content, judgement.validPage, judgement.entryPoint})
        bind(int{value});
    insert_.bind(++parameter, std::string_view(escaped(transaction.target)));
    insert_.run();
}

void DayWriter::count(const Transaction& transaction, const Judgement& judgement) {
    const std::int64_t since = transaction.time.seconds - dayStart_;
    const std::int64_t start = transaction.time.seconds - since % records::kSlotSeconds;
    Slot& slot = slots_[start];
    slot.totals.add(transaction);
    const int statusClass = transaction.status / 100;
    if (statusClass <= 5)
        ++slot.byClass[statusClass];
    slot.content += judgement.content;
    slot.validPages += judgement.validPage;
    slot.entryPoints += judgement.entryPoint;
}

void DayWriter::writeSlots() {
    for (const auto& [start, slot] : slots_) {
        slot_.bind(1, start);
        int parameter = bindTotals(slot_, 2, slot.totals);
        for (int statusClass = 2; statusClass <= 5; ++statusClass)
            slot_.bind(parameter++, slot.byClass[statusClass]);
        for (const std::int64_t value : {slot.content, slot.validPages, slot.entryPoints})
            slot_.bind(parameter++, value);
        slot_.run();
    }
    slots_.clear();
}

void DayWriter::commit() {
    if (uncommitted_ == 0)
        return;
    if (database_.hasMoved())
        throw records::DatabaseError(database_.path() + " was moved or deleted");
    methods_.write();
    hosts_.write();
    types_.write();
    clients_.write();
    servers_.write();
    writeSlots();
    database_.execute("COMMIT");
    uncommitted_ = 0;
}

}  // namespace kp::capture
