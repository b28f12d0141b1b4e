#include "kp/core/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "kp/core/exception.h"
#include "kp/tools/tools.h"
#include "support/child.h"
#include "support/installation.h"

namespace {

using kp::test::expectQuit;
using kp::test::Outcome;
using kp::test::runInChild;

class LogTest : public kp::test::InstallationTest {};

// Writes through every writer.
void writeAll(std::FILE* stream) {
    KP_Log::log("l");
    KP_Log::debug("d");
    KP_Log::flog(nullptr, "f%d", 1);
    KP_Log::flog(stream, "F");
    for (const int level : {-1, 0, 1, 2, 3}) {
        KP_Log::debugLevel(nullptr, level, "%d ", level);
        KP_Log::debugLevel(stream, level, "%d ", level);
    }
    KP_Log::ret("a %d", 5);
}

TEST_F(LogTest, EveryWriterKeepsItsLevelAndOnlyRetAddsToTheText) {
    const struct {
        int level;
        const char* log;
        const char* stream;
    } cases[] = {{0, "lf1-1 0 TIME - a 5\n", "F-1 0 "},
                 {2, "ldf1-1 0 1 2 TIME - a 5\n", "F-1 0 1 2 "},
                 {-1, "ldf1-1 TIME - a 5\n", "F-1 "}};
    for (const auto& each : cases) {
        std::FILE* stream = KP_Tools::openFile(site_.path("stream").c_str(), "w");
        site_.openLog(each.level);
        writeAll(stream);
        EXPECT_EQ(site_.newLog(), each.log) << each.level;  // read while it is open
        EXPECT_EQ(site_.read("stream"), each.stream) << each.level;
        std::fclose(stream);
    }
}

TEST_F(LogTest, IsClosedBeforeInitAndAfterReset) {
    EXPECT_EQ(KP_Log::getFD(), stdout);
    site_.openLog(3);
    EXPECT_NE(KP_Log::getFD(), stdout);
    EXPECT_EQ(KP_Log::reset(), 0);
    EXPECT_EQ(KP_Log::getFD(), stdout);
    const Outcome outcome = runInChild([] {
        writeAll(stderr);
        KP_Log::quit("gone");
        return 0;
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "F-1 0 ");  // the level is forgotten as well
    EXPECT_EQ(site_.newLog(), "");
}

TEST_F(LogTest, InitAppendsAndASecondOneClosesTheFirst) {
    site_.write("logs/test.log", "old\n");
    site_.openLog();
    KP_Log::log("new\n");
    KP_Log::init("other", 1, nullptr);
    KP_Log::debug("second\n");
    EXPECT_EQ(runInChild([]() -> int { KP_Log::quit("no %s", "more"); }).status, 1);
    EXPECT_EQ(site_.newLog(), "old\nnew\n");
    EXPECT_EQ(site_.read("logs/other.log"), "second\nno more");
}

TEST_F(LogTest, WithoutALogsDirectoryOrAFileItEndsTheProcess) {
    const auto init = [](const std::string& name) {
        const Outcome outcome = runInChild([&] {
            KP_Log::init(name.c_str(), 0, nullptr);
            return 0;
        });
        EXPECT_EQ(outcome.out + outcome.err, "");
        return outcome.status;
    };
    // Slashes name the same file however many there are; 1023 characters are the longest path.
    const std::size_t room = 1023 - site_.path("logs/x.log").size();
    EXPECT_EQ(init(std::string(room + 1, '/') + "x"), 1);
    EXPECT_FALSE(std::filesystem::exists(site_.path("logs/x.log")));
    EXPECT_EQ(init(std::string(room, '/') + "x"), 0);
    EXPECT_TRUE(std::filesystem::exists(site_.path("logs/x.log")));
    EXPECT_EQ(init(std::string(5000, 'n')), 1);
    std::filesystem::create_directory(site_.path("logs/blocked.log"));
    EXPECT_EQ(init("blocked"), 1);
    std::filesystem::remove_all(site_.path("logs"));
    EXPECT_EQ(init("test"), 1);
    site_.write("logs", "a file");
    EXPECT_EQ(init("test"), 1);
    EXPECT_EQ(site_.read("logs"), "a file");
}

TEST_F(LogTest, RetWritesTheLocalTimeAndLinesOfAnyLength) {
    site_.openLog();
    char before[60];
    char after[60];
    KP_Tools::getTimeString1(before);
    KP_Log::ret("x");
    KP_Tools::getTimeString1(after);
    const std::string line = site_.read("logs/test.log");
    EXPECT_TRUE(line == std::string(before) + " - x\n" || line == std::string(after) + " - x\n");
    site_.newLog();
    for (const std::size_t length : {1004, 1005, 1006, 1007, 5000}) {
        const std::string text(length, 'y');
        KP_Log::ret("%s", text.c_str());
        EXPECT_EQ(site_.newLog(), "TIME - " + text + "\n");
    }
}

TEST_F(LogTest, ReopenedGoesOnInANewFileAndKeepsTheOldOneWhenThereIsNone) {
    EXPECT_EQ(KP_Log::reopen(), -1);  // not open
    site_.openLog(1);
    constexpr int kThreads = 4;
    constexpr int kLines = 400;
    const std::string log = site_.path("logs/test.log");
    std::atomic<int> writing{kThreads};
    std::vector<std::thread> writers;
    writers.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        writers.emplace_back([&] {
            for (int line = 0; line < kLines; ++line) {
                KP_Log::ret("a line");
            }
            --writing;
        });
    }
    int files = 0;
    while (writing > 0 && files < 1000) {
        std::filesystem::rename(log, log + "." + std::to_string(files++));
        EXPECT_EQ(KP_Log::reopen(), 0);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    std::string all = site_.read("logs/test.log");
    for (int i = 0; i < files; ++i) {
        all += site_.read("logs/test.log." + std::to_string(i));
    }
    const std::regex line("[^\n]* - a line\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(all.begin(), all.end(), line), {}),
              kThreads * kLines);
    EXPECT_EQ(std::regex_replace(all, line, ""), "");

    std::filesystem::rename(site_.path("logs"), site_.path("moved"));
    EXPECT_EQ(KP_Log::reopen(), -1);
    KP_Log::log("still here");
    EXPECT_NE(site_.read("moved/test.log").find("still here"), std::string::npos);
    std::filesystem::rename(site_.path("moved"), site_.path("logs"));
}

}  // namespace
