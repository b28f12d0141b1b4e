#include "kp/engine/reset_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <string>

#include "support/installation.h"
#include "threads/until.h"

namespace {

using kp::test::until;

std::tm at(int hour, int minute, int second) {
    std::tm local = {};
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    return local;
}

/// Writes its letter down when it is reset, and fails.
class Archive : public KP_Object {
public:
    Archive(std::string* order, char letter) : order_(order), letter_(letter) {}
    int reset() override {
        *order_ += letter_;
        return -1;
    }

private:
    std::string* order_;
    char letter_;
};

/// A thread to which a day is nothing: it ends after so many nights.
class ShortDays : public KP_ResetThread {
public:
    explicit ShortDays(int days) : days_(days) {}
    ~ShortDays() override { join(nullptr, 0); }

    std::atomic<int> slept{0};

protected:
    int sleep(int seconds) override {
        slept = seconds;
        if (--days_ == 0) {
            setContinue(0);
        }
        return 0;
    }

private:
    int days_;
};

int secondsLeft() {
    const std::time_t now = std::time(nullptr);
    return KP_ResetThread::secondsToMidnight(*std::localtime(&now));
}

TEST(ResetThreadTest, TheWayToMidnightIsThatOfADayOf24Hours) {
    EXPECT_EQ(KP_ResetThread::secondsToMidnight(at(23, 59, 30)), 30);
    EXPECT_EQ(KP_ResetThread::secondsToMidnight(at(0, 0, 0)), 86400);
    EXPECT_EQ(KP_ResetThread::secondsToMidnight(at(23, 59, 59)), 1);
    // Europe's clocks are set forward at 02:00 and back at 03:00: from 01:30 of a day of 23 hours
    // the sleep of 22:30 hours lasts until 01:00, of a day of 25 hours until 23:00.
    EXPECT_EQ(KP_ResetThread::secondsToMidnight(at(1, 30, 0)), 22 * 3600 + 1800);
}

class ResetThreadLogTest : public kp::test::InstallationTest {};

TEST_F(ResetThreadLogTest, ResetsInOrderEveryDayAndSaysSo) {
    for (const int level : {1, 0}) {
        site_.openLog(level);
        std::string order;
        Archive a(&order, 'a');
        Archive b(&order, 'b');
        ShortDays days(3);  // two whole ones, and one that a stop cuts off
        days.append(&a);
        days.append(&b);
        const int before = secondsLeft();
        days.start();
        ASSERT_TRUE(until([&] { return days.isRunning() == 0; }));
        days.join(nullptr, 0);
        EXPECT_EQ(order, "abab");
        const int after = secondsLeft();
        EXPECT_TRUE((days.slept <= before && days.slept >= after) || after > before)
            << before << ' ' << days.slept << ' ' << after;
        const std::string log = site_.newLog();
        if (level == 0) {
            EXPECT_EQ(log, "");
        } else {
            EXPECT_EQ(log.find("Reseting archive files at "), 0U) << log;
            EXPECT_NE(log.find("\n......done reseting archive files at "), std::string::npos)
                << log;
        }
    }
}

TEST(ResetThreadTest, AStopEndsTheSleepWithoutAReset) {
    std::string order;
    Archive a(&order, 'a');
    KP_ResetThread* const days = KP_ResetThread::create();
    days->append(&a);
    days->start();
    days->stop();
    days->start();  // the cycle that was told to end is not resumed as if it were midnight
    days->stop();
    days->join(nullptr, 0);
    EXPECT_EQ(order, "");
    days->release();
}

}  // namespace
