// The recorder alone: days that begin while rows come, and a disk that does not take them.
#include "recorder.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "records/day_files.h"
#include "support/installation.h"

namespace {

namespace fs = std::filesystem;
using kp::capture::Recorder;
using kp::capture::Transaction;
using kp::records::Database;
using kp::records::Day;
using kp::records::dayPath;
using kp::records::today;

class RecorderTest : public kp::test::InstallationTest {
protected:
    Recorder::Settings settings(bool mayWait) {
        Recorder::Settings settings;
        settings.directory = site_.path("db");
        settings.mayWait = mayWait;
        settings.daysToKeep = [] { return 2U; };
        settings.retryPeriod = std::chrono::milliseconds(10);
        settings.tell = [this](const std::string& text) { told_ += text + "\n"; };
        return settings;
    }
    static void record(Recorder& recorder, std::int64_t seconds, const std::string& target) {
        Transaction transaction;
        transaction.time.seconds = seconds;
        transaction.method = "GET";
        transaction.target = target;
        recorder.record(std::move(transaction), {});
    }
    std::int64_t rowsOf(const Day& day) {
        Database database(dayPath(site_.path("db"), day), Database::Access::kRead);
        return database.number("SELECT count(*) FROM transactions");
    }

    std::string told_;
};

TEST_F(RecorderTest, ADayThatBeginsLosesNoRowAndDeletesWhatIsTooOld) {
    const Day now = today();
    for (const int age : {2, 3, 4, 400})
        site_.write("db/" + now.plus(-age).text() + ".sqlite", "");
    site_.write("db/" + now.plus(-9).text() + ".sqlite-wal", "left alone by somebody");
    Recorder recorder(settings(true));
    recorder.open();
    EXPECT_EQ(kp::records::daysIn(site_.path("db")), std::vector<Day>{now.plus(-2)});
    EXPECT_FALSE(fs::exists(dayPath(site_.path("db"), now.plus(-9)) + "-wal"));
    EXPECT_NE(told_.find("deleted the records of " + now.plus(-3).text()), std::string::npos);

    recorder.start();
    site_.write("db/" + now.plus(-3).text() + ".sqlite", "");
    std::thread days([&] {
        for (int i = 0; i < 50; ++i) {
            recorder.dayBegan();
            std::this_thread::yield();
        }
    });
    constexpr int kRows = 20000;
    for (int i = 0; i < kRows; ++i) {
        // The last second of yesterday and the first of today.
        const std::int64_t midnight = now.start();
        record(recorder, i % 2 == 0 ? midnight : midnight - 1, "/" + std::to_string(i));
    }
    days.join();
    recorder.flush();
    EXPECT_EQ(recorder.recorded(), static_cast<unsigned>(kRows));
    EXPECT_EQ(recorder.lost(), 0U);
    EXPECT_EQ(rowsOf(now), kRows / 2);
    EXPECT_EQ(rowsOf(now.plus(-1)), kRows / 2);
    EXPECT_FALSE(fs::exists(dayPath(site_.path("db"), now.plus(-3))));
    // Times that no calendar has cannot be kept; the rest can.
    record(recorder, INT64_MAX / 2, "/never");
    record(recorder, now.start(), "/today");
    recorder.finish();
    EXPECT_EQ(recorder.lost(), 1U);
    EXPECT_EQ(rowsOf(now), kRows / 2 + 1);
    EXPECT_FALSE(kp::records::isOpenOrLeft(site_.path("db"), now));
}

TEST_F(RecorderTest, WhoeverMayNotWaitLosesWhatADiskThatStandsStillDoesNotTake) {
    const Day now = today();
    Recorder recorder(settings(false));
    recorder.open();
    recorder.start();
    record(recorder, now.start(), "/before");
    recorder.flush();
    Database blocking(dayPath(site_.path("db"), now), Database::Access::kWrite);
    blocking.execute("BEGIN IMMEDIATE");
    std::uint64_t handed = 1;
    const std::string large(100000, 'x');
    for (; recorder.lost() == 0 && handed < 3000; ++handed)
        record(recorder, now.start(), large);
    EXPECT_GT(recorder.lost(), 0U);  // and this thread, which holds the disk up, did not wait
    blocking.execute("ROLLBACK");
    recorder.finish();
    EXPECT_EQ(recorder.recorded() + recorder.lost(), handed);
    EXPECT_EQ(static_cast<std::uint64_t>(rowsOf(now)), recorder.recorded());
}

TEST_F(RecorderTest, TriesAgainWhenTheDirectoryIsBack) {
    const Day now = today();
    fs::rename(site_.path("db"), site_.path("away"));
    Recorder recorder(settings(true));
    recorder.open();
    EXPECT_NE(told_.find("cannot record: " + site_.path("db")), std::string::npos);
    EXPECT_NE(recorder.fault(), "");
    fs::rename(site_.path("away"), site_.path("db"));
    recorder.start();
    std::uint64_t handed = 0;
    while (recorder.recorded() == 0) {
        record(recorder, now.start(), "/");
        ++handed;
        recorder.flush();
    }
    EXPECT_EQ(recorder.fault(), "");
    EXPECT_NE(told_.find("recording again"), std::string::npos);
    EXPECT_EQ(recorder.recorded() + recorder.lost(), handed);
    recorder.finish();
    EXPECT_EQ(static_cast<std::uint64_t>(rowsOf(now)), recorder.recorded());
}

}  // namespace
