// What kp-capture records, when it is killed too, and what kp-query finds in it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "kp/tools/tools.h"
#include "records/database.h"
#include "records/time_text.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

namespace fs = std::filesystem;
using kp::records::Database;
using kp::test::Outcome;
using Arguments = std::vector<std::string>;
using Lines = std::multiset<std::string>;

constexpr const char* kColumns =
    "time\tclient\tclient_port\tserver\tserver_port\tmethod\thost\ttarget\tstatus\ttype\tbytes\t"
    "in_ranges\tcontent\tpage\tentry\tresponse_ms\n";

std::string captureOf(const std::string& name) {
    return std::string(KP_CAPTURES) + "/" + name;
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    return lines;
}

// A capture of raw IP packets, as a file that is being written.
class Feed {
public:
    explicit Feed(const std::string& path)
        : descriptor_(::open(path.c_str(), O_WRONLY | O_CREAT, 0600)) {
        const std::uint32_t header[] = {0xA1B2C3D4, 0x00040002, 0, 0, 65535, 101};
        put({reinterpret_cast<const char*>(header), sizeof header});
    }
    ~Feed() { ::close(descriptor_); }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    // A request for @p target from 10.0.0.9, and its answer; false when nobody reads any more.
    bool exchange(const std::string& target) {
        const std::string request = "GET " + target + " HTTP/1.1\r\nHost: h\r\n\r\n";
        const std::string answer = "HTTP/1.1 204 No Content\r\n\r\n";
        const bool isRead =
            packet(0, request, sent_, got_) &&
            packet(1, answer, got_, sent_ + static_cast<std::uint32_t>(request.size()));
        sent_ += static_cast<std::uint32_t>(request.size());
        got_ += static_cast<std::uint32_t>(answer.size());
        return isRead;
    }

private:
    bool packet(int side, const std::string& data, std::uint32_t sequence,
                std::uint32_t acknowledged) {
        const std::string client("\x0A\0\0\x09", 4);
        const std::string server("\xC0\0\x02\x01", 4);
        const std::string ports[] = {{"\x9C\x40", 2}, {"\0\x50", 2}};
        std::string bytes("\x45\0\0\0\0\0\x40\0\x40\x06\0\0", 12);
        bytes[2] = static_cast<char>((40 + data.size()) >> 8);
        bytes[3] = static_cast<char>(40 + data.size());
        bytes += side == 0 ? client + server : server + client;
        bytes += ports[side] + ports[1 - side] + big(sequence) + big(acknowledged);
        bytes += std::string("\x50\x10\xFF\xFF\0\0\0\0", 8) + data;
        const auto size = static_cast<std::uint32_t>(bytes.size());
        const std::uint32_t record[] = {1700000000, 0, size, size};
        return put(std::string(reinterpret_cast<const char*>(record), sizeof record) + bytes);
    }
    static std::string big(std::uint32_t number) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(number >> shift);
        return bytes;
    }
    bool put(const std::string& bytes) const {
        return ::write(descriptor_, bytes.data(), bytes.size()) ==
               static_cast<ssize_t>(bytes.size());
    }

    int descriptor_;
    std::uint32_t sent_ = 1;
    std::uint32_t got_ = 1;
};

// An installation that watches 10.0.0.0/24 and keeps everything, in a zone of its own.
class RecordsTest : public testing::Test {
protected:
    RecordsTest() {
        ::setenv("TZ", "Asia/Kathmandu", 1);  // 5 hours and 45 minutes ahead
        ::tzset();
        ::signal(SIGPIPE, SIG_IGN);
        site_.write("password", "secret\n");
        const Outcome outcome = kp::test::runProgram(
            KP_CONFIGURE, {"--force", "--password-file", site_.path("password"), "--port",
                           std::to_string(port_.number()), "--range", "10.0.0.0/24", "--days",
                           "1000000", "--filter", ""});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }
    ~RecordsTest() override { ::unsetenv("TZ"); }

    static Outcome record(const std::string& pcap, Arguments more = {}) {
        more.insert(more.end(), {"--record", "--replay", pcap});
        return kp::test::runProgram(KP_CAPTURE, more);
    }
    static std::string query(const Arguments& arguments) {
        const Outcome outcome = kp::test::runProgram(KP_QUERY, arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out;
    }
    // The rows of list, without the response times, as --print writes them.
    static Lines listed(Arguments arguments = {}) {
        arguments.insert(arguments.end(), {"list", "--tsv"});
        const std::string text = query(arguments);
        EXPECT_EQ(text.substr(0, text.find('\n') + 1), kColumns);
        Lines lines;
        for (const std::string& line : linesOf(text.substr(text.find('\n') + 1)))
            lines.insert(line.substr(0, line.rfind('\t')));
        return lines;
    }
    std::string dayFile(const std::string& day = "2023-11-15") const {
        return site_.path("db/" + day + ".sqlite");
    }
    std::int64_t number(const std::string& sql, const std::string& day = "2023-11-15") const {
        Database database(dayFile(day), Database::Access::kRead);
        return database.number(sql);
    }

    kp::test::Installation site_;
    kp::test::OwnPort port_;
};

TEST_F(RecordsTest, KeepsEveryLineThatIsPrintedInOneFileADay) {
    Lines expected;
    for (const char* name : {"visit", "escapes", "judgements", "pipelining", "unanswered"}) {
        const Outcome outcome =
            record(captureOf(std::string(name) + ".pcap"), {"--print", "--threads", "2"});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        expected.merge(linesOf(outcome.out));
    }
    EXPECT_GT(expected.size(), 30U);
    EXPECT_EQ(listed(), expected);
    for (const fs::directory_entry& entry : fs::directory_iterator(site_.path("db")))
        EXPECT_EQ(entry.path().filename().string().find("sqlite-"), std::string::npos) << entry;
    EXPECT_EQ(fs::status(dayFile()).permissions(), fs::perms(0600));

    // The totals that are kept say what counting the rows says.
    for (const char* what : {"hosts", "clients", "servers", "types", "methods"}) {
        EXPECT_EQ(query({"top", what, "--tsv"}), query({"top", what, "--tsv", "--host", "*"}));
    }
    for (const char* by : {"hour", "day"}) {
        EXPECT_EQ(query({"totals", "--by", by}), query({"totals", "--by", by, "--host", "*"}));
    }
    EXPECT_EQ(number("SELECT sum(requests) FROM slots"), static_cast<int>(expected.size()));
}

TEST_F(RecordsTest, AnswersWithTheRowsThatEveryConditionAsksFor) {
    record(captureOf("judgements.pcap"));
    record(captureOf("unanswered.pcap"));
    record(captureOf("visit.pcap"), {"--start", "2024-02-29 23:59:58"});
    const Lines all = listed();
    const auto where = [&](std::size_t column,
                           const std::function<bool(const std::string&)>& fits) {
        Lines lines;
        for (const std::string& line : all) {
            std::istringstream cells(line);
            std::string cell;
            for (std::size_t i = 0; i < column; ++i)
                std::getline(cells, cell, '\t');
            if (fits(cell))
                lines.insert(line);
        }
        return lines;
    };
    const auto is = [](const std::string& text) {
        return [text](const std::string& cell) { return cell == text; };
    };
    EXPECT_EQ(listed({"--content"}), where(13, is("1")));
    EXPECT_EQ(listed({"--page"}), where(14, is("1")));
    EXPECT_EQ(listed({"--entry"}), where(15, is("1")));
    EXPECT_EQ(listed({"--status", "none"}), where(9, is("-")));
    EXPECT_EQ(listed({"--status", "300-499"}),
              where(9, [](const std::string& cell) { return cell[0] == '3' || cell[0] == '4'; }));
    EXPECT_EQ(listed({"--type", "TEXT/*"}), where(10, [](const std::string& cell) {
                  return cell.rfind("text/", 0) == 0 || cell.rfind("TEXT/", 0) == 0;
              }));
    EXPECT_EQ(listed({"--host", "-"}), where(7, is("-")));
    EXPECT_EQ(listed({"--host", "[a-z]*"}).size(), 0U);  // brackets are nothing special
    EXPECT_EQ(listed({"--client", "10.0.0.5"}), where(2, is("10.0.0.5")));
    EXPECT_EQ(listed({"--client", "0.0.0.0/0"}), all);
    EXPECT_EQ(listed({"--server", "10.0.0.0/8"}).size() +
                  listed({"--server", "11.0.0.0-255.255.255.255"}).size(),
              all.size());
    // Rows stand in the file of the local day of their request, and days are one answer.
    const std::string midnight = std::to_string(kp::records::parseTime("2024-03-01").start);
    const auto isBefore = [&](const std::string& cell) { return cell < midnight; };
    EXPECT_EQ(listed({"--to", "2024-02-29"}), where(1, isBefore));
    EXPECT_EQ(listed({"--to", "2024-02-29 23:59:58", "--from", "2024-02-29"}).size(),
              static_cast<std::size_t>(number("SELECT count(*) FROM transactions", "2024-02-29")));
    EXPECT_EQ(query({"list", "--limit", "9", "--tsv"}),
              query({"list", "--limit", "9", "--tsv", "--to", "2023-11-15"}));
    EXPECT_EQ(linesOf(query({"totals", "--by", "day", "--tsv"})).size(),
              1 + 107U);  // with empty ones
}

TEST_F(RecordsTest, WritesTablesTabsAndJson) {
    record(captureOf("visit.pcap"));
    EXPECT_EQ(query({"top", "types", "--limit", "2"}),
              "type       requests  bytes  response_ms\n"
              "text/html         2     12        2.002\n"
              "image/gif         1     35        2.002\n");
    EXPECT_EQ(query({"totals", "--json"}),
              "[\n {\"requests\": 4, \"bytes\": 59, \"response_ms\": 2.002, \"no_answer\": 0, "
              "\"2xx\": 3, \"3xx\": 1, \"4xx\": 0, \"5xx\": 0, \"content\": 3, \"pages\": 3, "
              "\"entries\": 1}\n]\n");
    EXPECT_EQ(query({"list", "--json", "--status", "none"}), "[\n]\n");
    EXPECT_EQ(query({"top", "hosts", "--from", "2030-01-01", "--tsv"}),
              "host\trequests\tbytes\tresponse_ms\n");
    EXPECT_EQ(number("SELECT count(*) FROM transactions_text WHERE client = '10.0.0.5' AND "
                     "time LIKE '2023-11-15 03:58:20.0%' AND response_milliseconds > 2"),
              4);
    // On a terminal there are bars, and on a narrow one fewer numbers.
    const auto shown = [](const std::string& columns) {
        const std::string command = "stty cols " + columns + "; " + KP_QUERY + " totals --by day";
        return kp::test::runProgram("/usr/bin/script", {"-qc", command, "/dev/null"}).out;
    };
    EXPECT_NE(shown("200").find(" entries  bar"), std::string::npos);
    EXPECT_NE(shown("200").find("  " + std::string(40, '#')), std::string::npos);
    EXPECT_NE(shown("80").find("response_ms  bar"), std::string::npos);
    EXPECT_NE(shown("80").find("  " + std::string(20, '#')), std::string::npos);
    const std::string named = query({"top", "clients", "--resolve", "--json"});
    EXPECT_NE(named.find("\"client\": \"10.0.0.5\""), std::string::npos);
    const unsigned long address = 0x0A000005;
    char name[256];
    KP_Tools::resolveIP(&address, name);
    const std::string told =
        std::string(name) == "10.0.0.5" ? "null" : '"' + std::string(name) + '"';
    EXPECT_NE(named.find("\"name\": " + told), std::string::npos) << named;
    record(captureOf("escapes.pcap"));
    EXPECT_NE(query({"list", "--json"}).find(R"("target": "/caf\\xE9?\\xFF\\x80=\\x01\\x7F")"),
              std::string::npos);
    for (const Arguments& wrong : {Arguments{},
                                   {"top"},
                                   {"top", "x"},
                                   {"list", "--from", "2023-02-30"},
                                   {"list", "--status", "4x"},
                                   {"list", "--tsv", "--json"}}) {
        EXPECT_EQ(kp::test::runProgram(KP_QUERY, wrong).status, 2);
    }
}

TEST_F(RecordsTest, TellsFilesThatAreNoDaysAndTouchesThemNot) {
    site_.write("db/2023-11-15.sqlite", std::string(5000, 'x'));
    site_.write("db/2023-11-31.sqlite", "no day");
    site_.write("db/notes.txt", "mine");
    const Outcome outcome = record(captureOf("visit.pcap"), {"--print"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.err.find("cannot record: "), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("kp-capture: losses: 4 transactions not recorded\n"),
              std::string::npos)
        << outcome.err;
    EXPECT_NE(outcome.err.find("recorded     0 transactions (4 more could not be recorded)"),
              std::string::npos);
    EXPECT_EQ(outcome.out, kp::test::contentOf(captureOf("visit.expected")));
    EXPECT_EQ(site_.read("db/2023-11-15.sqlite"), std::string(5000, 'x'));
    record(captureOf("visit.pcap"), {"--start", "2023-11-16"});
    const Outcome asked = kp::test::runProgram(KP_QUERY, {"list", "--tsv"});
    EXPECT_EQ(asked.status, 1);
    EXPECT_EQ(linesOf(asked.out).size(), 1 + 4U);  // the day beside it is answered
    EXPECT_NE(asked.err.find(dayFile()), std::string::npos) << asked.err;
    fs::remove(dayFile());
    record(captureOf("visit.pcap"));
    Database(dayFile(), Database::Access::kWrite).execute("PRAGMA user_version = 2");
    EXPECT_NE(record(captureOf("visit.pcap")).err.find("has table version 2"), std::string::npos);
    EXPECT_NE(kp::test::runProgram(KP_QUERY, {"list"}).err.find("has table version 2"),
              std::string::npos);
}

TEST_F(RecordsTest, GoesOnWatchingWhenTheFileMayNotGrow) {
    // 600 exchanges are some 90 kB, and no file may have more than 64.
    {
        Feed feed(site_.path("feed"));
        for (int i = 0; i < 600; ++i)
            feed.exchange("/limited/" + std::to_string(i));
    }
    const std::string command = std::string("ulimit -f 128; exec \"$0\" \"$@\"");
    const Outcome outcome = kp::test::runProgram(
        "/bin/sh",
        {"-c", command, KP_CAPTURE, "--record", "--print", "--replay", site_.path("feed")});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(linesOf(outcome.out).size(), 600U);
    EXPECT_NE(outcome.err.find("cannot record: " + dayFile()), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("(600 more could not be recorded)"), std::string::npos)
        << outcome.err;
    EXPECT_EQ(record(site_.path("feed")).status, 0);
    EXPECT_EQ(number("SELECT count(*) FROM transactions"), 600);
    EXPECT_EQ(number("SELECT count(*) FROM pragma_integrity_check WHERE integrity_check = 'ok'"),
              1);
}

TEST_F(RecordsTest, SharesNoDirectoryAndLeavesNoLockBehind) {
    ::mkfifo(site_.path("feed").c_str(), 0600);
    kp::test::RunningProgram first(KP_CAPTURE, {"--record", "--replay", site_.path("feed")},
                                   site_.path("first"));
    const Feed feed(site_.path("feed"));  // the first one reads: it has started
    // It takes the directory after it has opened its capture.
    EXPECT_TRUE(kp::test::until([&] { return fs::exists(site_.path("db/kp-capture.lock")); }));
    Outcome second{};
    for (int tries = 0; tries < 1000 && second.status != 1; ++tries)
        second = record(captureOf("visit.pcap"));
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("another engine records into " + site_.path("db")),
              std::string::npos);
    EXPECT_EQ(kp::test::runProgram(KP_CAPTURE, {"--replay", captureOf("visit.pcap")}).status, 0);
    first.end(SIGKILL);
    EXPECT_EQ(record(captureOf("visit.pcap")).status, 0);
}

// KP_KILL_ROUNDS says how many times, and then that a row may be missing for a second only; a
// machine that has other things to do can take longer.
TEST_F(RecordsTest, AKilledEngineLeavesWholeFiles) {
    using Clock = std::chrono::steady_clock;
    const char* const wanted = std::getenv("KP_KILL_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 3;
    std::mt19937 random(std::random_device{}());
    ::mkfifo(site_.path("feed").c_str(), 0600);
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        const std::string name = "/round/" + std::to_string(round) + "/";
        const std::string ofRound = " FROM transactions WHERE target LIKE '" + name + "%'";
        kp::test::RunningProgram engine(KP_CAPTURE, {"--record", "--replay", site_.path("feed")},
                                        site_.path("output"));
        Feed feed(site_.path("feed"));
        std::vector<Clock::time_point> fed;
        bool isGone = false;
        const auto more = [&] {
            isGone = !feed.exchange(name + std::to_string(fed.size()));
            fed.push_back(Clock::now());
            if (fed.size() % 100 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        };
        const auto hasRows = [&] {
            try {
                return fs::exists(dayFile()) && number("SELECT count(*)" + ofRound) > 0;
            } catch (const kp::records::DatabaseError&) {
                return false;  // its tables are being made
            }
        };
        while (!isGone && (fed.size() % 5000 != 0 || !hasRows()))
            more();
        const auto end = Clock::now() + std::chrono::milliseconds(random() % 1500);
        while (!isGone && Clock::now() < end)
            more();
        EXPECT_FALSE(isGone);
        const Clock::time_point killed = Clock::now();
        engine.end(SIGKILL);

        EXPECT_EQ(
            number("SELECT count(*) FROM pragma_integrity_check WHERE integrity_check = 'ok'"), 1);
        const std::int64_t rows = number("SELECT count(*)" + ofRound);
        const std::string last =
            "SELECT max(CAST(substr(target, " + std::to_string(name.size() + 1) + ") AS INTEGER))";
        EXPECT_EQ(number(last + ofRound) + 1, rows);  // none is missing between others
        EXPECT_EQ(number("SELECT sum(requests) FROM slots"),
                  number("SELECT count(*) FROM transactions"));
        if (wanted != nullptr) {
            const auto old = std::count_if(fed.begin(), fed.end(), [&](Clock::time_point time) {
                return time < killed - std::chrono::seconds(1);
            });
            EXPECT_GE(rows, old);
            std::printf("round %d: %zu fed, %lld recorded, %lld older than a second\n", round,
                        fed.size(), static_cast<long long>(rows), static_cast<long long>(old));
        }
    }
}

}  // namespace
