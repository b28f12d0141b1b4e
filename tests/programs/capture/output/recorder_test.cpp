// The recorder alone: days that begin while rows come, and a disk that does not take them.
#include "output/recorder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include "records/day_files.h"
#include "support/child.h"
#include "support/installation.h"
#include "threads/until.h"

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
        settings.isStopped = [this] { return isStopped_.load(); };
        settings.retryPeriod = std::chrono::milliseconds(10);
        settings.tell = [this](const std::string& text) {
            const std::lock_guard<std::mutex> lock(mutex_);
            told_ += text + "\n";
        };
        return settings;
    }
    static void record(Recorder& recorder, std::int64_t seconds, const std::string& target) {
        Transaction transaction;
        transaction.time.seconds = seconds;
        transaction.method = "GET";
        transaction.target = target;
        recorder.record(std::move(transaction), {});
    }
    std::int64_t rowsOf(const Day& day, const std::string& where = "") {
        Database database(dayPath(site_.path("db"), day), Database::Access::kRead);
        return database.number("SELECT count(*) FROM transactions" + where);
    }

    bool isTold(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return told_.find(text) != std::string::npos;
    }

    std::atomic<bool> isStopped_{false};
    std::mutex mutex_;
    std::string told_;
};

TEST_F(RecorderTest, ADayThatBeginsLosesNoRowAndDeletesWhatIsTooOld) {
    const Day now = today();
    for (const int age : {2, 3, 4, 30})
        site_.write("db/" + now.plus(-age).text() + ".sqlite", "");
    site_.write("db/" + now.plus(-9).text() + ".sqlite-wal", "left alone by somebody");
    fs::create_directory(dayPath(site_.path("db"), now.plus(-8)));
    site_.write("db/" + now.plus(-8).text() + ".sqlite/x", "");
    site_.write("db/" + now.plus(-5).text() + ".sqlite", "somebody else's");
    Recorder recorder(settings(true));
    recorder.open();
    recorder.start();
    recorder.flush();
    EXPECT_EQ(kp::records::daysIn(site_.path("db")),
              (std::vector<Day>{now.plus(-8), now.plus(-5), now.plus(-2)}));
    EXPECT_FALSE(fs::exists(dayPath(site_.path("db"), now.plus(-9)) + "-wal"));
    EXPECT_TRUE(isTold("deleted the records of " + now.plus(-3).text()));
    for (const int age : {5, 8})
        EXPECT_TRUE(
            isTold(dayPath(site_.path("db"), now.plus(-age)) + " is not a day file of kp-capture"));

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
    EXPECT_EQ(rowsOf(now, " WHERE time < " + std::to_string(now.start()) + "000000"), 0);
    EXPECT_FALSE(fs::exists(dayPath(site_.path("db"), now.plus(-3))));
    // Times that no calendar has cannot be kept; the rest can.
    record(recorder, INT64_MAX / 2, "/never");
    record(recorder, now.start(), "/today");
    recorder.finish();
    EXPECT_EQ(recorder.lost(), 1U);
    EXPECT_EQ(rowsOf(now), kRows / 2 + 1);
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
    EXPECT_GT(recorder.lost(), 0U);
    EXPECT_EQ(recorder.fault(), "");  // this thread, which holds the disk up, did not wait
    blocking.execute("ROLLBACK");
    recorder.finish();
    EXPECT_EQ(recorder.recorded() + recorder.lost(), handed);
    EXPECT_EQ(static_cast<std::uint64_t>(rowsOf(now)), recorder.recorded());
}

TEST_F(RecorderTest, WhoeverMayWaitWaitsForSomebodyElsesLock) {
    const Day now = today();
    Recorder::Settings impatient = settings(true);
    impatient.lockPatience = std::chrono::milliseconds(10);
    Recorder recorder(impatient);
    recorder.open();
    recorder.start();
    record(recorder, now.start(), "/before");
    recorder.flush();
    auto blocking =
        std::make_unique<Database>(dayPath(site_.path("db"), now), Database::Access::kWrite);
    blocking->execute("BEGIN IMMEDIATE");
    record(recorder, now.start(), "/behind");
    std::thread later([&] {
        while (!isTold("waiting for "))
            std::this_thread::yield();
        blocking.reset();
    });
    recorder.flush();
    later.join();
    EXPECT_EQ(recorder.lost(), 0U);
    EXPECT_EQ(rowsOf(now), 2);
    // But not once a stop was asked for.
    blocking = std::make_unique<Database>(dayPath(site_.path("db"), now), Database::Access::kWrite);
    blocking->execute("BEGIN IMMEDIATE");
    isStopped_ = true;
    record(recorder, now.start(), "/never");
    recorder.flush();
    EXPECT_EQ(recorder.lost(), 1U);
    blocking.reset();
    recorder.finish();
}

TEST_F(RecorderTest, ADayThatCannotBeWrittenCostsTheOthersNothing) {
    const Day now = today();
    Database(dayPath(site_.path("db"), now.plus(-1)), Database::Access::kWrite)
        .execute("CREATE TABLE mine (x)");
    const std::string before = site_.read("db/" + now.plus(-1).text() + ".sqlite");
    Recorder recorder(settings(true));
    recorder.open();
    recorder.start();
    for (int i = 0; i < 100; ++i) {
        record(recorder, now.start(), "/today");
        record(recorder, now.start() - 1, "/yesterday");
    }
    recorder.finish();
    EXPECT_EQ(recorder.recorded(), 100U);
    EXPECT_EQ(recorder.lost(), 100U);
    EXPECT_EQ(rowsOf(now), 100);
    EXPECT_TRUE(isTold("is not a day file"));
    EXPECT_EQ(site_.read("db/" + now.plus(-1).text() + ".sqlite"),
              before);  // it is somebody else's
}

TEST_F(RecorderTest, TriesAgainWhenTheDirectoryIsBack) {
    const Day now = today();
    fs::rename(site_.path("db"), site_.path("away"));
    Recorder recorder(settings(true));
    recorder.open();
    EXPECT_TRUE(isTold("cannot record: " + site_.path("db")));
    recorder.start();
    std::uint64_t handed = 0;
    const auto record = [&] {
        // Another day than the one whose fault was told at the start.
        RecorderTest::record(recorder, now.plus(-1).start(), "/");
        ++handed;
        recorder.flush();
    };
    while (handed < 100)
        record();
    EXPECT_EQ(recorder.lost(), handed);
    fs::rename(site_.path("away"), site_.path("db"));
    while (recorder.recorded() == 0)
        record();
    EXPECT_EQ(recorder.fault(), "");
    EXPECT_TRUE(isTold("recording again"));
    // The same for a file that is taken away while it is written.
    fs::remove(dayPath(site_.path("db"), now.plus(-1)));
    const std::uint64_t recorded = recorder.recorded();
    while (recorder.recorded() == recorded)
        record();
    recorder.finish();
    EXPECT_TRUE(isTold("was moved or deleted"));
    EXPECT_EQ(recorder.recorded() + recorder.lost(), handed);
    EXPECT_EQ(static_cast<std::uint64_t>(rowsOf(now.plus(-1))), recorder.recorded() - recorded);
}

// A lock of the system's goes with the first descriptor that a process closes of the file. Without
// the lock another program takes SQLite's log away under the engine.
TEST_F(RecorderTest, KeepsTheLockOfAnOpenDayWhateverBecomesOfTheOthers) {
    const Day writing = today().plus(-4);
    const Day busy = today().plus(-2);  // is looked at behind the other one
    Recorder::Settings quick = settings(true);
    quick.daysToKeep = [] { return 9U; };
    quick.lockPatience = quick.tidyPeriod = std::chrono::milliseconds(10);
    Recorder recorder(quick);
    recorder.open();
    recorder.start();
    record(recorder, busy.start(), "/");
    recorder.flush();
    auto reader =
        std::make_unique<Database>(dayPath(site_.path("db"), busy), Database::Access::kWrite);
    reader->execute("BEGIN");
    EXPECT_EQ(reader->number("SELECT count(*) FROM transactions"), 1);
    recorder.dayBegan();  // closes the day, which is busy
    recorder.flush();
    record(recorder, writing.start(), "/");
    recorder.flush();
    reader.reset();
    EXPECT_TRUE(kp::test::until([&] {
        return Database::headerOf(dayPath(site_.path("db"), busy))[19] == 1;  // needs no log
    }));
    const auto isUnlocked = [&] {
        const int file = ::open(dayPath(site_.path("db"), writing).c_str(), O_RDWR);
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        return ::fcntl(file, F_GETLK, &whole) != 0 || whole.l_type == F_UNLCK ? 1 : 0;
    };
    EXPECT_EQ(kp::test::runInChild(isUnlocked).status, 0);
    record(recorder, writing.start(), "/");
    recorder.finish();
    EXPECT_EQ(rowsOf(writing), 2);
}

TEST_F(RecorderTest, LeavesAloneWhatIsNoFileInThePlaceOfADay) {
    const Day now = today();
    const auto path = [&](int age) { return dayPath(site_.path("db"), now.plus(-age)); };
    for (const std::string& pipe : {path(0), path(1) + "-journal", path(2) + "-wal", path(9)})
        ::mkfifo(pipe.c_str(), 0600);
    site_.write("elsewhere", "mine");
    fs::create_symlink(site_.path("elsewhere"), path(3));
    fs::create_symlink(site_.path("nowhere"), path(4));
    fs::create_directory(path(5));
    fs::create_symlink(site_.path("db"), site_.path("linked"));  // a directory may be one
    Recorder::Settings settings = this->settings(true);
    settings.directory = site_.path("linked");
    settings.daysToKeep = [] { return 8U; };
    Recorder recorder(settings);
    recorder.open();
    recorder.start();
    for (int age = 0; age <= 6; ++age)
        record(recorder, now.plus(-age).start(), "/");
    recorder.finish();
    EXPECT_EQ(recorder.lost(), 6U);
    EXPECT_EQ(rowsOf(now.plus(-6)), 1);
    EXPECT_EQ(fs::status(path(6)).permissions(), fs::perms(0600));
    EXPECT_TRUE(isTold(".sqlite-wal is not a regular file and is left alone"));
    EXPECT_TRUE(isTold(now.plus(-9).text() + ".sqlite is not a day file of kp-capture"));
    EXPECT_TRUE(fs::is_fifo(path(0)) && fs::is_fifo(path(9)) && fs::is_symlink(path(4)));
    EXPECT_EQ(site_.read("elsewhere"), "mine");
    EXPECT_FALSE(fs::exists(site_.path("nowhere")));
}

TEST_F(RecorderTest, AClockThatIsWrongDeletesNothing) {
    const Day now = today();
    const auto begin = [&](bool deletes) {
        Recorder::Settings settings = this->settings(true);
        settings.deletesBeforePauses = deletes;
        Recorder recorder(settings);
        recorder.open();
        recorder.start();
        recorder.flush();
        // The same once there is a day of the wrong time.
        record(recorder, now.start(), "/");
        recorder.flush();
        recorder.dayBegan();
        recorder.finish();
        return kp::records::daysIn(site_.path("db"));
    };
    std::vector<Day> all;
    for (const int age : {15003, 15002, 15000, 60, 40, 0}) {
        all.push_back(now.plus(-age));
        if (age != 0)
            site_.write("db/" + now.plus(-age).text() + ".sqlite", "");
    }
    EXPECT_EQ(begin(false), all);
    EXPECT_TRUE(isTold("the records up to " + now.plus(-40).text() + " are not deleted"));
    // What is not before the pause goes as ever.
    site_.write("db/" + now.plus(-31).text() + ".sqlite", "");
    site_.write("db/" + now.plus(-5).text() + ".sqlite", "");
    EXPECT_EQ(begin(false), (std::vector<Day>{all[0], all[1], all[2], now}));
    EXPECT_EQ(begin(true), std::vector<Day>{now});
}

}  // namespace
