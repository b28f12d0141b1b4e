// kp-query and kp-capture with day files that somebody else made.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "records/day_files.h"
#include "records/schema.h"
#include "support/installation.h"
#include "support/program.h"

namespace {

namespace fs = std::filesystem;
using kp::records::Database;
using kp::test::Outcome;

constexpr const char* kDay = "2023-11-15";

class ForeignFilesTest : public kp::test::InstallationTest {
protected:
    // A whole day with one request, and what @p sql makes of it.
    void make(const std::string& sql) const {
        fs::remove(file());
        Database database(file(), Database::Access::kWrite);
        database.execute("BEGIN");
        kp::records::createSchema(database);
        database.execute(
            "INSERT INTO methods VALUES (1, 'GET', 1, 9, 1, 7);"
            "INSERT INTO hosts VALUES (1, 'h', 1, 9, 1, 7);"
            "INSERT INTO types VALUES (1, 'text/html', 1, 9, 1, 7);"
            "INSERT INTO clients VALUES (1, 1, 9, 1, 7); INSERT INTO servers VALUES (2, 1, 9, 1, "
            "7);"
            "INSERT INTO slots VALUES (1700049600, 1, 9, 1, 7, 1, 0, 0, 0, 1, 1, 1);"
            "INSERT INTO transactions VALUES "
            "(1, 1700050000000000, 7, 1, 1024, 2, 80, 1, 1, 200, 1, 9, 1, 1, 1, 1, '/');");
        database.execute(sql);
        database.execute("COMMIT");
    }
    std::string file() const { return site_.path("db/") + kDay + ".sqlite"; }
    // With bounds of memory and output, so that whoever knows none of its own fails soon.
    Outcome query(const std::string& question) const {
#ifdef KP_SANITIZED  // Sanitizers take more addresses than any bound leaves them.
        const std::string bounds = "ulimit -f 4096; ";
#else
        const std::string bounds = "ulimit -f 4096; ulimit -v 4000000; ";
#endif
        return kp::test::runProgram(
            "/bin/sh", {"-c", bounds + "exec \"$0\" --db \"$1\" --tsv " + question + " >\"$2\"",
                        KP_QUERY, site_.path("db"), site_.path("answer")});
    }
};

TEST_F(ForeignFilesTest, NumbersThatCannotBeAreTold) {
    const std::string questions[] = {"totals --by hour", "totals --host h", "top hosts",
                                     "top clients --host h", "list"};
    make("");
    for (const std::string& question : questions)
        EXPECT_EQ(query(question).status, 0) << question;
    const struct {
        const char* question;
        const char* change;
    } cases[] = {
        {"totals --by hour", "UPDATE slots SET start = 9223372036854775806"},
        {"totals --by day",
         "INSERT INTO slots SELECT start - 90000000, 1, 1, 1, 1, 1, 1, 1, 1, 1, "
         "1, 1 FROM slots"},
        {"totals --by hour", "UPDATE slots SET requests = -1"},
        {"totals", "UPDATE slots SET requests = 9223372036854775807"},
        {"totals", "UPDATE slots SET answers = 2"},
        {"totals", "UPDATE slots SET content = 2"},
        {"totals", "UPDATE slots SET response_time = -9223372036854775807"},
        {"totals --host h", "UPDATE transactions SET time = 9223372036854775807"},
        {"totals --by hour --host h", "UPDATE slots SET start = -9223372036854775807"},
        {"totals --host h", "UPDATE transactions SET response_time = 1e18"},
        {"totals --host h", "UPDATE transactions SET status = 9223372036854775807"},
        {"top hosts", "UPDATE hosts SET body_bytes = 'many'"},
        {"top hosts", "UPDATE hosts SET response_time = 9223372036854775807"},
        {"top clients", "UPDATE clients SET address = 1099511627776"},
        {"list", "UPDATE transactions SET time = -9223372036854775807"},
        {"list", "UPDATE transactions SET client = -1"},
        {"list", "UPDATE transactions SET server_port = 65536"},
        {"list", "UPDATE transactions SET body_bytes = x'00'"},
        {"list", "UPDATE transactions SET content = 2"},
    };
    for (const auto& each : cases) {
        make(each.change);
        const Outcome outcome = query(each.question);
        EXPECT_EQ(outcome.status, 1) << each.change;
        EXPECT_NE(outcome.err.find(file() + " is damaged: "), std::string::npos)
            << each.change << outcome.err;
    }
    // Sums over days that are whole each.
    make("UPDATE hosts SET requests = 9007199254740992, answers = 0, response_time = 0");
    EXPECT_EQ(query("top hosts").status, 0);
}

TEST_F(ForeignFilesTest, TablesThatComputeAreNotRead) {
    const std::string heavy = "AS (printf('%.*c', 900000, 'x'))";
    const struct {
        const char* what;
        std::string change;
    } cases[] = {
        {"generated column", "ALTER TABLE transactions ADD COLUMN more TEXT " + heavy},
        {"generated instead",
         "DROP TABLE hosts; CREATE TABLE hosts (id INTEGER PRIMARY KEY, name TEXT " + heavy +
             ", requests, body_bytes, answers, response_time)"},
        {"view",
         "DROP TABLE slots; CREATE VIEW slots AS SELECT 1700049600 AS start, 1 AS requests, "
         "1 AS body_bytes, 1 AS answers, 1 AS response_time"},
        {"trigger", "CREATE TRIGGER t AFTER INSERT ON transactions BEGIN DELETE FROM hosts; END"},
    };
    for (const auto& each : cases) {
        make(each.change);
        for (const char* question : {"list", "top hosts", "totals"}) {
            const Outcome outcome = query(question);
            EXPECT_EQ(outcome.status, 1) << each.what;
            EXPECT_NE(outcome.err.find("is not a day file of kp-capture"), std::string::npos)
                << each.what << outcome.err;
        }
        Database database(file(), Database::Access::kWrite);
        EXPECT_THROW(kp::records::hasSchema(database), kp::records::DatabaseError) << each.what;
    }
}

TEST_F(ForeignFilesTest, ReadingEndsWhateverAFileHolds) {
    make("");
    Database database(file(), Database::Access::kRead);
    const auto number = [&](const std::string& sql) { return database.number(sql); };
    EXPECT_THROW(number("SELECT length(zeroblob(2000000))"), kp::records::DatabaseError);
    database.limitSteps();
    EXPECT_EQ(number("SELECT count(*) FROM transactions"), 1);
    EXPECT_THROW(number("WITH RECURSIVE n(x) AS (VALUES (1) UNION ALL SELECT x + 1 FROM n) "
                        "SELECT count(*) FROM n"),
                 kp::records::DatabaseError);
    fs::remove(file());
    // A list that comes in pieces because its texts are long, or its rows many, has them all.
    make(
        "WITH RECURSIVE n(x) AS (VALUES (2) UNION ALL SELECT x + 1 FROM n LIMIT 10500) "
        "INSERT INTO transactions SELECT x, 1700050000000000 + x / 3, 7, 1, 1024, 2, 80, 1, 1, "
        "200, "
        "1, 9, 1, 1, 1, 1, '/' FROM n; UPDATE transactions SET target = printf('/%.*c', 250000, "
        "'x') WHERE id % 100 = 0");
    const Outcome listed =
        kp::test::runProgram(KP_QUERY, {"--db", site_.path("db"), "--tsv", "list"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(std::count(listed.out.begin(), listed.out.end(), '\n'), 1 + 10501);
}

}  // namespace
