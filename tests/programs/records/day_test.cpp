// Days of zones in which midnight comes early, late or not at all.
#include "records/day.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>

#include "records/time_text.h"

namespace {

using kp::records::Day;
using kp::records::dayOf;
using kp::records::parseDay;

class DayTest : public testing::Test {
protected:
    static void useZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~DayTest() override {
        ::unsetenv("TZ");
        ::tzset();
    }
};

TEST_F(DayTest, EveryMomentBelongsToTheDayBetweenItsStartAndTheNext) {
    // Whole, half and quarter hours; clocks set forward at midnight (Sao Paulo until 2018, Beirut),
    // back to it (Azores, Havana, Amman), and by half an hour (Lord Howe); a day that never was
    // (Apia).
    for (const char* zone :
         {"UTC", "Europe/Berlin", "America/New_York", "Asia/Kathmandu", "Asia/Beirut",
          "America/Sao_Paulo", "Atlantic/Azores", "America/Havana", "Asia/Amman",
          "Australia/Lord_Howe", "Pacific/Apia", "UTC+12", "XYZ-13:59:57"}) {
        useZone(zone);
        // A zone that the system does not know would be UTC, and show nothing.
        ASSERT_TRUE(std::string(zone) == "UTC" || parseDay("2018-01-01")->start() % 86400 != 0)
            << zone;
        kp::records::DayFinder finder;
        for (const char* year : {"2011-01-01", "2018-01-01", "2021-01-01", "2026-01-01"}) {
            Day day = *parseDay(year);
            for (int i = 0; i < 366; ++i, day = day.plus(1)) {
                const std::int64_t start = day.start();
                const bool exists =
                    !(day == *parseDay("2011-12-30")) || std::string(zone) != "Pacific/Apia";
                ASSERT_TRUE(!exists || dayOf(start) == day) << zone << ' ' << day.text();
                ASSERT_TRUE(!exists || dayOf(start - 1) < day) << zone << ' ' << day.text();
                for (std::int64_t time = start; time < day.plus(1).start(); time += 7207)
                    ASSERT_EQ(finder.dayOf(time)->text(), dayOf(time)->text())
                        << zone << ' ' << time;
            }
        }
    }
}

TEST_F(DayTest, TextsAreDaysAndMomentsOrRefused) {
    useZone("Europe/Berlin");
    using kp::records::parseTime;
    EXPECT_EQ(parseTime("2026-03-29").end - parseTime("2026-03-29").start, 23 * 3600);
    EXPECT_EQ(parseTime("2026-10-25").end - parseTime("2026-10-25").start, 25 * 3600);
    EXPECT_EQ(parseTime("2026-11-23 12:00").start, 1795431600);
    EXPECT_EQ(parseTime("2026-11-23T12:00:01").end, 1795431602);
    EXPECT_EQ(kp::records::timeText(1795431600), "2026-11-23 12:00:00");
    for (const char* text :
         {"", "2026", "2026-02-29", "2026-13-01", "2026-11-23 24:00", "2026-11-23 1:00",
          "2026-11-23 12:60", "2026-11-23 12-00", "2026-11-23x12:00", "20261123", "noon"}) {
        EXPECT_THROW(parseTime(text), kp::records::TimeTextError) << text;
    }
    for (const std::int64_t never :
         {INT64_MIN, -(std::int64_t{1} << 40), std::int64_t{1} << 40, INT64_MAX}) {
        EXPECT_FALSE(dayOf(never)) << never;
    }
}

}  // namespace
