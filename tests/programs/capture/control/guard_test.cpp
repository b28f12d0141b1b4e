// What keeps strangers and damaged files away, without a socket or a process: who may try a
// password, what the log gets, which general file is read, and what foreign text becomes.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "common/general_file.h"
#include "common/printable.h"
#include "control/login_limiter.h"
#include "control/refusal_log.h"
#include "kp/kp.h"
#include "support/child.h"
#include "support/installation.h"

namespace {

using kp::capture::LoginLimiter;
using kp::capture::RefusalLog;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = LoginLimiter::Time;

constexpr std::uint32_t kHere = 0x7F000001;
constexpr std::uint32_t kAdministrator = 0x0A000001;

// How many attempts come through in @p time, of so many addresses that ask every millisecond.
int attempts(LoginLimiter& limiter, Time& now, std::uint32_t addresses, milliseconds time) {
    int count = 0;
    for (const Time end = now + time; now < end; now += milliseconds(1)) {
        for (std::uint32_t i = 0; i < addresses; ++i) {
            if (!limiter.ask(0xC0A80000 + i, now)) {
                ++count;
                limiter.failed(0xC0A80000 + i, now);
            }
        }
    }
    return count;
}

TEST(LoginLimiterTest, StrangersShareTwentyAttemptsASecondOfWhichOneGetsOne) {
    LoginLimiter limiter;
    Time now = Time() + seconds(1000);
    EXPECT_EQ(attempts(limiter, now, 1, seconds(10)), 10);
    now += seconds(2);
    EXPECT_EQ(attempts(limiter, now, 400, seconds(10)), 200);
    now += seconds(2);
    EXPECT_FALSE(limiter.ask(0xC0A80000, now));
    EXPECT_EQ(limiter.ask(0xC0A80000, now), now + seconds(1));
    EXPECT_EQ(limiter.ask(0xC0A80001, now), now + milliseconds(50));
}

TEST(LoginLimiterTest, WhoeverHasBeenInWaitsForNobodyUntilTenHaveFailed) {
    LoginLimiter limiter;
    Time now = Time() + seconds(1000);
    EXPECT_FALSE(limiter.ask(kAdministrator, now));
    limiter.succeeded(kAdministrator);
    EXPECT_TRUE(limiter.isKnown(kHere));
    for (const std::uint32_t address : {kAdministrator, kHere}) {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_FALSE(limiter.ask(address, now));
            limiter.succeeded(address);
        }
        limiter.ask(0xC0A80000, now);  // The strangers' share is used up.
        int free = 0;
        for (; free < 100 && !limiter.ask(address, now); ++free)
            limiter.failed(address, now);
        EXPECT_EQ(free, LoginLimiter::kFreeFailures);
        now += seconds(2);
        limiter.ask(0xC0A80000, now);
        EXPECT_FALSE(limiter.ask(address, now)) << "two have been forgotten";
        limiter.succeeded(address);
        EXPECT_FALSE(limiter.ask(address, now));
    }
}

TEST(LoginLimiterTest, ForgetsWhoeverLoggedInLongestAgoAndNeverThisMachine) {
    LoginLimiter limiter;
    limiter.succeeded(kHere);
    for (std::uint32_t i = 0; i <= LoginLimiter::kMostKnown; ++i) {
        limiter.succeeded(kAdministrator + i);
        if (i == 10)
            limiter.succeeded(kAdministrator);
    }
    EXPECT_TRUE(limiter.isKnown(kHere));
    EXPECT_TRUE(limiter.isKnown(kAdministrator));
    EXPECT_FALSE(limiter.isKnown(kAdministrator + 1));
}

TEST(RefusalLogTest, ABurstIsALineAndALineAMinute) {
    RefusalLog log;
    Time now = Time() + seconds(1000);
    EXPECT_EQ(log.refused(kAdministrator, now), "a client at 10.0.0.1 was refused");
    std::vector<std::string> lines;
    for (int i = 0; i < 150000; ++i, now += milliseconds(1)) {
        for (const std::string& line : {log.refused(kAdministrator + 1, now), log.due(now)}) {
            if (!line.empty())
                lines.push_back(line);
        }
    }
    const std::string minute = "60000 more clients were refused in 60 s, the last at 10.0.0.2";
    EXPECT_EQ(lines, (std::vector<std::string>{minute, minute}));
    EXPECT_EQ(log.due(now, true), "30000 more clients were refused in 30 s, the last at 10.0.0.2");
    now += RefusalLog::kPeriod;
    EXPECT_EQ(log.due(now), "");
    EXPECT_EQ(log.refused(kHere, now), "a client at 127.0.0.1 was refused") << "a new burst";
}

TEST(PrintableTest, NothingButPrintableAsciiReachesATerminal) {
    using kp::programs::Backslash;
    using kp::programs::printable;
    EXPECT_EQ(printable("plain ~ \\ text"), "plain ~ \\ text");
    EXPECT_EQ(printable("\x1b[2J\r\n\t\x7f"), "\\x1B[2J\\x0D\\x0A\\x09\\x7F");
    // A control of eight bits, the same in UTF-8, a letter whose second byte is one, a reversal.
    EXPECT_EQ(printable("\x9b\xc2\x9b\xc5\x9b\xe2\x80\xae"),
              "\\x9B\\xC2\\x9B\\xC5\\x9B\\xE2\\x80\\xAE");
    EXPECT_EQ(printable(std::string_view("a\0b", 3)), "a\\x00b");
    std::string line = "|";
    kp::programs::appendPrintable(line, "\\x41\n", Backslash::kEscape);
    EXPECT_EQ(line, "|\\x5Cx41\\x0A");
}

class GeneralFileTest : public kp::test::InstallationTest {
protected:
    GeneralFileTest() {
        KP_ConfigAdmin config;
        config.setName("x");
        std::snprintf(config.password, sizeof config.password, "secret");
        std::snprintf(config.filterProgram, sizeof config.filterProgram, "tcp");
        config.daysOfDataToKeep = 7;
        config.numOfMimeTypes = 2;
        config.mimeTypes = static_cast<KP_Config::MimeType*>(
            std::calloc(config.numOfMimeTypes, sizeof(KP_Config::MimeType)));
        std::snprintf(config.mimeTypes[0].type, 64, "text/html");
        std::snprintf(config.mimeTypes[0].postfixes[config.mimeTypes[0].numOfPostfixes++], 16,
                      "htm");
        std::snprintf(config.mimeTypes[1].type, 64, "image/gif");
        config.applyNetAddress = 1;
        config.numOfNets = 1;
        config.exampleAddress[0] = kAdministrator;
        config.maskAddress[0] = 0xFFFFFF00;
        config.save();
        good_ = site_.read("admin/x_prvt.cfg");
    }

    static std::string faultOf(const std::string& content) {
        std::istringstream file(content);
        return kp::programs::generalFileFault(file);
    }
    std::string changed(const std::string& from, const std::string& to) const {
        return kp::test::with(good_, from, to);
    }

    std::string good_;
};

TEST_F(GeneralFileTest, WhatTheReaderWouldMisreadIsAFault) {
    EXPECT_EQ(faultOf(good_), "");
    EXPECT_EQ(faultOf(changed("# BPF filter string", "# other words")), "");
    const std::string long1023(1023, 'x');
    const struct {
        std::string content;
        const char* fault;
    } faults[] = {
        {changed("text/html", "audio/ogg\t\t\togg \ntext/html"),
         "line 23: here should be an empty"},
        {changed("text/html\t\t\thtm \n", ""), "line 22: here should be the mapping"},
        {changed("mappings\n2", "mappings\n65538"), "line 18: there cannot be so many"},
        {changed("mappings\n2", "mappings\n\n2"), "line 18: here should be the number of mappings"},
        {changed("# Net 1=On", "# " + long1023), "line 8: more than 1023 characters"},
        {changed("Off\n0", "Off\n0 " + std::string(126, 'x')), "line 9: here should be the flag"},
        {changed("string\ntcp", "string\n" + std::string(512, 'x')), "line 12: the filter is too"},
        {changed("htm ", "a b c d e f g h i j k l m n o p q"), "line 21: more than 16 extensions"},
        {changed("{secret}", "{}"), "line 25: the password is empty"},
        {changed("{secret}", ""), "line 25: here should be password{...}"},
        {changed("{secret}", "{sec}ret}"), "line 25: the value of password has a brace"},
        {changed("{secret}", "{" + std::string(512, 'x') + "}"), "line 25: the password is too"},
        {changed("applyNetAddress{1}", "applyNetAddress{on}"), "line 26: applyNetAddress is not"},
        {changed("numOfNets{1}", "numOfNets{6}"), "line 27: more than 5 networks"},
        {changed("numOfNets{1}", "numOfNets{2}"), "line 28: 1 addresses where numOfNets has 2"},
        {changed("{10.0.0.1}", "{10.0.0.\x1b]0;x}"), "IP Address: 10.0.0.\\x1B]0;x"},
        {changed("255.255.255.0}", "x.0.0.0}"), "line 29: Malformed IP Address: x.0.0.0"},
        {good_.substr(0, good_.size() - 4), "line 29: the file is cut off"},
        {good_.substr(0, 100), "the file is cut off"},
        {changed("secret", std::string("sec\0ret", 7)), "line 25: there is a byte 0"},
    };
    for (const auto& each : faults)
        EXPECT_NE(faultOf(each.content).find(each.fault), std::string::npos)
            << each.fault << ": " << faultOf(each.content);
    EXPECT_NE(kp::programs::generalFileFault(site_.path("admin")).find("is not a file"),
              std::string::npos);
}

// Every line doubled, left out, emptied or made too long: what is not refused, the library reads, and
// it reads what was meant.
TEST_F(GeneralFileTest, WhatIsNotRefusedTheLibraryReadsFromTheRightLines) {
    const auto readAs = [&](const std::string& content) {
        site_.write("admin/y_prvtDef.cfg", content);
        return kp::test::runInChild([&] {
            KP_ConfigDef config;
            config.setName("y");
            config.init();
            std::printf("%s %d %u %d %d %x", config.password, config.numOfNets,
                        config.daysOfDataToKeep, config.numOfMimeTypes, config.applyNetAddress,
                        config.netAddress[0]);
            std::fflush(stdout);
            return 0;
        });
    };
    std::vector<std::string> lines;
    std::istringstream stream(good_);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    int accepted = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        for (const std::string& instead :
             {lines[i] + "\n" + lines[i] + "\n", std::string(), std::string("\n"),
              lines[i] + std::string(1024, ' ') + "\n"}) {
            std::string content;
            for (std::size_t k = 0; k < lines.size(); ++k)
                content += k == i ? instead : lines[k] + "\n";
            if (!faultOf(content).empty())
                continue;
            ++accepted;
            const kp::test::Outcome outcome = readAs(content);
            EXPECT_EQ(outcome.status, 0) << content;
            // The filter may be left out, and nothing else.
            EXPECT_EQ(outcome.out, "secret 1 7 2 1 a000000") << content;
        }
    }
    EXPECT_GT(accepted, 0);
}

}  // namespace
