#include "kp/engine/engine_mgr.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kp/core/log.h"
#include "support/child.h"
#include "support/installation.h"

namespace {

using kp::test::Outcome;
using kp::test::runInChild;

class EngineMgrTest : public kp::test::InstallationTest {
protected:
    // Starts an engine with these words and debug option in a child, and says what became of it:
    // "name level" of its log, and whether it was to debug interactively.
    Outcome start(std::vector<std::string> words, const char* debug = nullptr) {
        return runInChild([this, &words, debug] {
            std::vector<char*> argv;
            for (std::string& word : words) {
                argv.push_back(word.data());
            }
            argv.push_back(nullptr);
            KP_NamedStringList options;
            options.setOwner(1);
            if (debug != nullptr) {
                options.append(new KP_String(debug), "Debug");
            }
            const int count = static_cast<int>(words.size());
            KP_EngineMgr manager(count, count != 0 ? argv.data() : nullptr, &options);
            KP_Log::debug("level");
            return 7;
        });
    }
    // The log that a start left, which is removed; "none" when there is no such log.
    std::string log(const std::string& name) {
        const std::string path = site_.path("logs/" + name + ".log");
        const std::string text =
            ::access(path.c_str(), F_OK) == 0 ? site_.read("logs/" + name + ".log") : "none";
        ::unlink(path.c_str());
        return text;
    }
};

TEST_F(EngineMgrTest, TheLogIsNamedAndLevelledByTheCommandLine) {
    const struct {
        std::vector<std::string> words;
        const char* debug;
        const char* log;
        const char* text;
    } cases[] = {
        {{"D:\\engine\\capture.exe"}, nullptr, "capture", ""},
        {{"D:\\prog.d\\tools\\engine.exe", "-v", "-x"}, nullptr, "prog", "level"},
        {{"./engine", "-r"}, nullptr, "", ""},
        {{"engine", "-vi", "v", "-", "--v"}, nullptr, "engine", ""},
        {{}, nullptr, "program", ""},
        {{"engine"}, "0", "engine", "level"},
        {{"engine"}, "none", "engine", "level"},
        {{"engine"}, "2", "engine", ""},
        {{"engine", "-i", "-v"}, "2", "engine", "level"},
        {{std::string(400, 'n')}, nullptr, "", "none"},
    };
    for (const auto& each : cases) {
        const Outcome outcome = start(each.words, each.debug);
        EXPECT_EQ(outcome.status, 7) << each.log;
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(log(each.log), each.text) << each.log;
    }
    EXPECT_EQ(log(std::string(127, 'n')), "");
}

TEST_F(EngineMgrTest, ItHoldsTheConfigurationsAndAnswersAsWhatItIs) {
    const std::time_t before = std::time(nullptr);
    KP_EngineMgr* const manager = KP_EngineMgr::create();
    ASSERT_NE(manager, nullptr);
    EXPECT_GE(manager->getStartTime(), before);
    EXPECT_LE(manager->getStartTime(), std::time(nullptr));
    EXPECT_NE(manager->getConfigAdmin(), manager->getConfig());
    EXPECT_EQ(manager->getConfig(), manager->getConfig());
    void* out = nullptr;
    EXPECT_EQ(manager->queryInterface(KP_Event::getClassID(), &out), 0);
    EXPECT_EQ(static_cast<KP_Event*>(out), manager);
    EXPECT_EQ(manager->queryInterface(KP_MessageHandler::getClassID(), &out), 0);
    EXPECT_EQ(manager->queryInterface(KP_ThreadList::getClassID(), &out), -1);
    EXPECT_EQ(log("program"), "");
    manager->release();
    EXPECT_EQ(KP_Log::getFD(), stdout);
}

TEST_F(EngineMgrTest, UsageAndFarewellGoToStandardOutput) {
    const Outcome usage = start({"engine", "-h"});
    EXPECT_EQ(usage.status, 7);
    EXPECT_EQ(usage.out,
              "Usage: program [ -i ] [ -r ] [ -v ]\n"
              "       i = start in interactive debugging mode\n"
              "       r = give this process a real-time priority\n"
              "       v = verbose debuging output\n");
    const Outcome end = runInChild([]() -> int { KP_EngineMgr::cleanup(3); });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.out, "Quitting capture engine.\n");
}

// Threads that log, and signals in the middle of that, until each kind was told many times.
TEST_F(EngineMgrTest, AStormOfSignalsLosesNeitherTheProcessNorALine) {
    constexpr int kLines = 2000;
    const Outcome outcome = runInChild([] {
        char name[] = "storm";
        char* argv[] = {name, nullptr};
        KP_EngineMgr manager(1, argv);
        std::atomic<int> writing{2};
        std::vector<std::thread> writers;
        for (int i = 0; i < 2; ++i) {
            writers.emplace_back([&writing] {
                for (int line = 0; line < kLines; ++line) {
                    KP_Log::log("whole %s\n", std::string(200, 'x').c_str());
                }
                --writing;
            });
        }
        do {  // Once at least, however fast the writers were.
            ::kill(::getpid(), SIGTERM);
            ::kill(::getpid(), SIGINT);
        } while (writing != 0);
        for (std::thread& writer : writers) {
            writer.join();
        }
        return 7;
    });
    ASSERT_EQ(outcome.status, 7) << outcome.err;
    std::istringstream lines(site_.read("logs/storm.log"));
    const std::string whole = "whole " + std::string(200, 'x');
    int written = 0;
    int terminations = 0;
    int interrupts = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line == whole) {
            ++written;
        } else if (line == "called the doNothing function.  signo=15") {
            ++terminations;
        } else if (line == "called the doQuit function.  signo=2") {
            ++interrupts;
        } else {
            ADD_FAILURE() << line;
        }
    }
    EXPECT_EQ(written, 2 * kLines);
    EXPECT_GT(terminations, 0);
    EXPECT_GT(interrupts, 0);
}

}  // namespace
