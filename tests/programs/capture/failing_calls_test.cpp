// Programs whose system calls fail, one after the other: nothing is lost that was said to be saved.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "records/database.h"
#include "records/day_files.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

namespace fs = std::filesystem;
using kp::records::Database;
using kp::records::Day;
using kp::records::today;
using kp::test::Outcome;
using Arguments = std::vector<std::string>;

class FailingCallsTest : public kp::test::InstallationTest {
protected:
    struct Run {
        Outcome outcome;
        std::string failed;  // "-" when there were fewer calls than that
    };

    // Runs a program whose call @p number fails, counted from the first that names @p after.
    Run run(int number, const std::string& after, Arguments command) const {
        const std::string report = site_.path("report");
        fs::remove(report);
        command.insert(command.begin(), {std::to_string(number), report, after});
        Run run = {kp::test::runProgram(KP_FAILING_CALLS, command), ""};
        EXPECT_TRUE(kp::test::until([&] { return fs::exists(report); }));
        std::ifstream line(report);
        line >> run.failed;
        std::getline(line, run.failed);
        run.failed.erase(0, 1);
        return run;
    }
    // Each file is whole; returns the rows that they have.
    std::int64_t rows() const {
        std::int64_t rows = 0;
        for (const Day& day : kp::records::daysIn(site_.path("db"))) {
            const std::string path = kp::records::dayPath(site_.path("db"), day);
            Database database(path, Database::Access::kWrite);
            EXPECT_EQ(database.number("SELECT count(*) FROM pragma_integrity_check "
                                      "WHERE integrity_check = 'ok'"),
                      1)
                << path;
            if (database.number("SELECT count(*) FROM sqlite_master") != 0)
                rows += database.number("SELECT count(*) FROM transactions");
        }
        return rows;
    }
    void clear() const {
        fs::remove_all(site_.path("db"));
        fs::create_directory(site_.path("db"));
    }
    void configure() const {
        site_.write("password", "secret\n");
        const Outcome outcome = kp::test::runProgram(
            KP_CONFIGURE,
            {"--force", "--password-file", site_.path("password"), "--port",
             std::to_string(port_.number()), "--range", "10.0.0.0/24", "--filter", ""});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }
    Outcome admin(Arguments arguments) const {
        arguments.insert(arguments.begin(), {"--port", std::to_string(port_.number()),
                                             "--password-file", site_.path("password")});
        return kp::test::runProgram(KP_ADMIN, arguments);
    }
    // All calls when KP_FAILING_CALLS_ALL is set, otherwise each so many.
    static int step(int usual) {
        return std::getenv("KP_FAILING_CALLS_ALL") != nullptr ? 1 : usual;
    }

    kp::test::OwnPort port_;
};

#ifndef KP_SANITIZED  // The sanitizers make calls of their own, and end the process when one fails.
TEST_F(FailingCallsTest, WhatTheRecorderHasRecordedIsInTheFiles) {
    std::set<std::string> kinds;
    bool isOver = false;
    for (int number = 1; !isOver; number += step(41)) {
        clear();
        for (const int age : {4, 5})
            site_.write("db/" + today().plus(-age).text() + ".sqlite", "");
        const Run run =
            this->run(number, "kp-capture.lock", {KP_FAILING_RECORDING, site_.path("db")});
        isOver = run.failed == "-";
        SCOPED_TRACE(std::to_string(number) + " " + run.failed + "\n" + run.outcome.err);
        kinds.insert(run.failed.substr(0, run.failed.find(' ')));
        EXPECT_LE(run.outcome.status, 1);
        std::istringstream lines(run.outcome.out);
        std::int64_t recorded = 0;
        std::int64_t lost = 0;
        std::int64_t values = 0;
        while (lines >> recorded >> lost)
            ++values;
        if (run.outcome.status == 0 || values > 0) {
            EXPECT_EQ(values, 5);
            EXPECT_EQ(recorded + lost, 4);
            EXPECT_EQ(rows(), recorded);
            EXPECT_EQ(run.outcome.status, lost == 0 ? 0 : 1);
        }
        if (isOver) {
            EXPECT_EQ(recorded, 4);
            EXPECT_GT(number, 100);
            EXPECT_EQ(kp::records::daysIn(site_.path("db")).size(), 3U);
        }
        // What is left can be recorded into.
        const Outcome again = kp::test::runProgram(KP_FAILING_RECORDING, {site_.path("db")});
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(rows(), recorded + 4);
    }
    EXPECT_GE(kinds.size(), 8U);
}

TEST_F(FailingCallsTest, AnEngineEndsOrGoesOnAndSaysSo) {
    configure();
    int calls = 0;
    bool isOver = false;
    for (int number = 1; !isOver; number += step(67)) {
        clear();
        const Run run = this->run(number, site_.path(),
                                  {KP_CAPTURE, "--record", "--print", "--start", "today",
                                   "--replay", std::string(KP_CAPTURES) + "/visit.pcap"});
        isOver = run.failed == "-";
        const std::string& said = run.outcome.err;
        SCOPED_TRACE(std::to_string(number) + " " + run.failed + "\n" + said);
        EXPECT_TRUE(run.outcome.status == 0 || run.outcome.status == 1 || run.outcome.status == 3);
        const std::string kRecorded = "recorded     ";
        const std::size_t place = said.find(kRecorded);
        const std::int64_t recorded =
            place == std::string::npos ? 0 : std::atoi(said.c_str() + place + kRecorded.size());
        EXPECT_EQ(rows(), recorded);
        // To the library a fault in the middle of the installation file is its end. So it is said.
        const bool hasNoRanges = said.find("no address ranges are configured") != std::string::npos;
        if (run.outcome.status == 0 && !hasNoRanges) {
            EXPECT_EQ(recorded, 4);
            EXPECT_EQ(std::count(run.outcome.out.begin(), run.outcome.out.end(), '\n'), 4);
        } else {
            EXPECT_NE(said.find("kp-capture: "), std::string::npos);
        }
        EXPECT_TRUE(!isOver || (run.outcome.status == 0 && !hasNoRanges));
        calls = number;
    }
    std::printf("up to call %d\n", calls);
}

TEST_F(FailingCallsTest, AChangeIsMadeOrRefusedAndTheEngineGoesOn) {
    configure();
    int refused = 0;
    bool isOver = false;
    for (int number = 1; !isOver; ++number) {
        fs::remove(site_.path("report"));
        kp::test::RunningProgram engine(
            KP_FAILING_CALLS,
            {std::to_string(number), site_.path("report"), ".kp-capture.new", KP_CAPTURE, "--serve",
             "--no-record", "--replay", std::string(KP_CAPTURES) + "/visit.pcap"},
            site_.path("output"));
        EXPECT_TRUE(
            kp::test::until([&] { return admin({"status"}).status == 0 || !engine.isRunning(); }));
        EXPECT_TRUE(engine.isRunning())
            << site_.read("output.err") << site_.read("logs/kp-capture.log");
        const std::string before = site_.read("admin/kp-capture_prvt.cfg");
        const Outcome set = admin({"set", "days=" + std::to_string(100 + number)});
        const std::string now = site_.read("admin/kp-capture_prvt.cfg");
        EXPECT_EQ(admin({"status"}).status, 0)
            << "the engine has ended at call " << number << site_.read("output.err");
        EXPECT_EQ(now == before, set.status != 0) << number << set.err;
        refused += set.status;
        for (const char* left : {"/.kp-capture.new_prvt.cfg", "/kp-capture_prvt.cfg.last.part"})
            EXPECT_FALSE(fs::exists(site_.path("admin") + left))
                << left << " " << number << " " << set.err;
        engine.end(SIGTERM);
        EXPECT_TRUE(kp::test::until([&] { return fs::exists(site_.path("report")); }));
        isOver = site_.read("report").find(" -\n") != std::string::npos;
    }
    EXPECT_GT(refused, 2);
}

#endif

// The reader of packets would miss some while it waited for an answer.
TEST_F(FailingCallsTest, NamesInAFilterAreLookedUpWhereItIsCheckedAndOnce) {
    configure();
    ::mkfifo(site_.path("feed").c_str(), 0600);
    const kp::test::RunningProgram engine(
        "/usr/bin/env",
        {std::string("LD_PRELOAD=") + KP_COUNTED_NAMES, "KP_COUNTED_NAMES=" + site_.path("names"),
         "ASAN_OPTIONS=verify_asan_link_order=0", KP_CAPTURE, "--serve", "--no-record", "--replay",
         site_.path("feed")},
        site_.path("output"));
    std::ofstream feed(site_.path("feed"), std::ios::binary);  // the engine reads
    const std::string capture = kp::test::contentOf(std::string(KP_CAPTURES) + "/visit.pcap");
    constexpr std::size_t kHeader = 24;
    const std::string packet = capture.substr(
        kHeader, 16 + *reinterpret_cast<const std::uint32_t*>(&capture[kHeader + 8]));
    const auto send = [&](const std::string& bytes, int packets) {
        feed << bytes << std::flush;
        const std::string said = "packets=" + std::to_string(packets) + "\n";
        EXPECT_TRUE(
            kp::test::until([&] { return admin({"status"}).out.find(said) != std::string::npos; }));
    };
    send(capture.substr(0, kHeader) + packet, 1);
    EXPECT_EQ(admin({"set", "filter=host counted.test"}).status, 0);
    send(packet, 2);  // before the reader has seen the new filter, or behind it: it passes
    send(packet, 3);
    EXPECT_EQ(site_.read("names"), "looked up\n");
    EXPECT_EQ(admin({"set", "filter=host counted.test and tcp"}).status, 0);
    send(packet + packet, 5);
    EXPECT_EQ(site_.read("names"), "looked up\nlooked up\n");
    EXPECT_EQ(site_.read("logs/kp-capture.log").find("refused"), std::string::npos);
}

}  // namespace
