#include "schema.h"

#include <string>
#include <vector>

namespace kp::records {

namespace {

// SQLite keeps the comments within a statement, so the file explains itself to whoever opens it.
constexpr const char* kTransactions = R"sql(CREATE TABLE transactions (
    -- One row a request, in the order in which their answers ended.
    id            INTEGER PRIMARY KEY,
    time          INTEGER NOT NULL, -- of the request, microseconds since 1970
    response_time INTEGER,          -- until the answer began, microseconds; NULL: no answer
    client        INTEGER NOT NULL, -- IPv4 address, the first number of its dotted form on top
    client_port   INTEGER NOT NULL,
    server        INTEGER NOT NULL,
    server_port   INTEGER NOT NULL,
    method        INTEGER NOT NULL REFERENCES methods,
    host          INTEGER NOT NULL REFERENCES hosts,
    status        INTEGER,          -- NULL: no answer
    type          INTEGER NOT NULL REFERENCES types, -- content type without parameters
    body_bytes    INTEGER NOT NULL, -- seen of the answer's body
    in_ranges     INTEGER NOT NULL, -- judgements, 1 or 0
    content       INTEGER NOT NULL,
    valid_page    INTEGER NOT NULL,
    entry_point   INTEGER NOT NULL,
    target        TEXT NOT NULL     -- as sent; tabs, line ends, backslashes and non-ASCII as \xHH
))sql";
constexpr const char* kIndex = "CREATE INDEX transactions_by_time ON transactions (time)";

// What each named thing is, with the totals of its rows, so that the commonest questions need no
// look at the rows.
std::string totalsTable(const std::string& name, const std::string& key) {
    return "CREATE TABLE " + name +
           " (\n    -- Totals of the rows of each; of those without one under the empty name.\n   "
           " " +
           key +
           ",\n"
           "    requests      INTEGER NOT NULL,\n"
           "    body_bytes    INTEGER NOT NULL,\n"
           "    answers       INTEGER NOT NULL,\n"
           "    response_time INTEGER NOT NULL -- microseconds, of all answers\n"
           ")";
}

constexpr const char* kSlots = R"sql(CREATE TABLE slots (
    -- Totals of each quarter of an hour since the day began.
    start         INTEGER PRIMARY KEY, -- seconds since 1970
    requests      INTEGER NOT NULL,
    body_bytes    INTEGER NOT NULL,
    answers       INTEGER NOT NULL,
    response_time INTEGER NOT NULL,
    status_2xx    INTEGER NOT NULL,
    status_3xx    INTEGER NOT NULL,
    status_4xx    INTEGER NOT NULL,
    status_5xx    INTEGER NOT NULL,
    content       INTEGER NOT NULL,
    valid_pages   INTEGER NOT NULL,
    entry_points  INTEGER NOT NULL
))sql";

constexpr const char* kView = R"sql(CREATE VIEW transactions_text AS
    SELECT t.id,
           datetime(t.time / 1000000, 'unixepoch', 'localtime') ||
               printf('.%06d', t.time % 1000000) AS time,
           t.response_time / 1000.0 AS response_milliseconds,
           printf('%d.%d.%d.%d', t.client >> 24, t.client >> 16 & 255, t.client >> 8 & 255,
                  t.client & 255) AS client,
           t.client_port,
           printf('%d.%d.%d.%d', t.server >> 24, t.server >> 16 & 255, t.server >> 8 & 255,
                  t.server & 255) AS server,
           t.server_port,
           methods.name AS method, hosts.name AS host, t.target, t.status, types.name AS type,
           t.body_bytes, t.in_ranges, t.content, t.valid_page, t.entry_point
    FROM transactions t
        JOIN methods ON methods.id = t.method
        JOIN hosts ON hosts.id = t.host
        JOIN types ON types.id = t.type)sql";

// What our programs read and write; the view is for people.
std::vector<std::string> tables() {
    std::vector<std::string> all = {kTransactions, kIndex, kSlots};
    for (const char* table : {"methods", "hosts", "types"})
        all.push_back(totalsTable(table,
                                  "id            INTEGER PRIMARY KEY,\n"
                                  "    name          TEXT NOT NULL UNIQUE"));
    for (const char* table : {"clients", "servers"})
        all.push_back(totalsTable(table, "address       INTEGER PRIMARY KEY"));
    return all;
}

// Whether each table is what we make, to the letter: a view or a column that computes its values
// runs what a stranger wrote, for as long and with as much memory as it likes. So does a trigger.
bool isWhole(Database& database) {
    Statement found(database,
                    "SELECT 1 FROM sqlite_master WHERE type IN ('table', 'index') AND sql = ?");
    for (const std::string& sql : tables()) {
        found.bind(1, std::string_view(sql));
        if (!found.step())
            return false;
        found.reset();
    }
    return database.number("SELECT count(*) FROM sqlite_master WHERE type = 'trigger'") == 0;
}

}  // namespace

bool hasSchema(Database& database) {
    const std::int64_t application = database.number("PRAGMA application_id");
    const std::int64_t version = database.number("PRAGMA user_version");
    const bool isEmpty = database.number("SELECT count(*) FROM sqlite_master") == 0;
    if (isEmpty && application == 0 && version == 0)
        return false;
    if (application != kApplicationId || (version == kSchemaVersion && !isWhole(database)))
        throw DatabaseError(database.path() + " is not a day file of kp-capture");
    if (version != kSchemaVersion) {
        throw DatabaseError(database.path() + " has table version " + std::to_string(version) +
                            ", this program knows version " + std::to_string(kSchemaVersion));
    }
    return true;
}

void createSchema(Database& database) {
    for (const std::string& sql : tables())
        database.execute(sql);
    database.execute(kView);
    database.execute("PRAGMA application_id = " + std::to_string(kApplicationId));
    database.execute("PRAGMA user_version = " + std::to_string(kSchemaVersion));
}

}  // namespace kp::records
