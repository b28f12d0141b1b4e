#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "kp/core/calc_hash.h"
#include "kp/core/compare.h"
#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "support/child.h"
#include "support/failing_malloc.h"
#include "support/installation.h"

namespace {

using kp::test::Installation;

TEST(WebContentTest, ContentTypesStatusCodesAndBlankTexts) {
    const auto mime = KP_Tools::isContentMIME;
    const auto page = KP_Tools::isValidPage;
    const auto blank = KP_Tools::isAllSpace;
    const struct {
        int (*judge)(const char*);
        const char* text;
        int result;
    } cases[] = {{mime, "text/html; x", 1},
                 {mime, "application/x", 1},
                 {mime, "x audio/", 1},
                 {mime, "video/mpeg", 1},
                 {mime, "image/jpeg", 0},
                 {mime, "TEXT/HTML", 0},
                 {mime, "", 0},
                 {page, "200", 1},
                 {page, "2031", 1},
                 {page, "304", 1},
                 {page, "204", 0},
                 {page, " 200", 0},
                 {page, "20", 0},
                 {blank, "", 1},
                 {blank, " \t\n\v\f\r", 1},
                 {blank, " a ", 0},
                 {blank, " \xA0", 0}};
    for (const auto& each : cases) {
        EXPECT_EQ(each.judge(each.text), each.result) << each.text;
    }
}

TEST(WebContentTest, EntryPointsDoNotComeFromTheExcludedPlace) {
    const std::string far(1022, 'x');
    const struct {
        std::string excluded;
        std::string location;
        const char* type;
        int result;
        std::string after;
    } cases[] = {{".Gif", "/Images/Logo.GIF", "text/html", 0, ".gif"},
                 {".Gif", "/index.html", "text/html", 1, ".gif"},
                 {".Gif", "/index.html", "image/gif", 0, ".gif"},
                 {".Gif", "", "text/html", 1, ".Gif"},
                 {".Gif", "", "image/gif", 0, ".gif"},
                 {"", "/x", "text/html", 0, ""},
                 {"A", far.substr(1) + "a", "text/html", 0, "a"},
                 {"A", far + "a", "text/html", 1, "a"}};
    for (const auto& each : cases) {
        std::string excluded = each.excluded;
        EXPECT_EQ(KP_Tools::isEntryPoint(excluded.data(), each.location.c_str(), each.type),
                  each.result);
        EXPECT_EQ(excluded, each.after);
    }
}

TEST(AddressTest, IsPrintedFromTheTopByteDownWhereThereIsNoName) {
    char text[256];
    KP_Tools::IPAddressString(0xC0A80001, text);
    EXPECT_STREQ(text, "192.168.0.1");
    KP_Tools::IPAddressString(0xFFFFFFFF, text);
    EXPECT_STREQ(text, "255.255.255.255");
    const unsigned long nameless = 1;
    KP_Tools::resolveIP(&nameless, text);
    EXPECT_STREQ(text, "0.0.0.1");
}

// Orders by a number in mode 0, the other way round in every other mode.
class Numbered : public KP_Compare {
public:
    explicit Numbered(int value) : number(value) {}
    int compare(KP_Compare* other, int mode) override {
        const int difference = number - static_cast<Numbered*>(other)->number;
        return mode == 0 ? difference : -difference;
    }
    int number;
};

TEST(SortTest, ComparesTheObjectsThemselvesOrAsTold) {
    Numbered one(1);
    Numbered two(2);
    Numbered three(3);
    KP_Object* entries[] = {&three, &one, &two};
    KP_Tools::sort(entries, 3, nullptr);
    EXPECT_TRUE(entries[0] == &one && entries[1] == &two && entries[2] == &three);
    KP_Tools::sort(entries, 3, [](const void* a, const void* b) {
        return kp::detail::compareObjects(*static_cast<KP_Object* const*>(a),
                                          *static_cast<KP_Object* const*>(b), 1);
    });
    EXPECT_TRUE(entries[0] == &three && entries[1] == &two && entries[2] == &one);
    KP_Tools::sort(nullptr, 0, nullptr);
    KP_CalcHash odd;
    EXPECT_EQ(kp::detail::compareObjects(&one, &odd, 1), -1);
    EXPECT_EQ(kp::detail::compareObjects(&odd, &one, 1), -1);
    KP_Object* mixed[] = {&two, &odd, &one};
    KP_Tools::sort(mixed, 3, nullptr);  // in any order, but all of them
    EXPECT_EQ(std::count(mixed, mixed + 3, &odd), 1);
}

// Knows one side of its order only; the other side is 0.
class OneSided : public virtual KP_Compare {
public:
    OneSided(int value, bool knowsAfter) : value_(value), knowsAfter_(knowsAfter) {}
    int compare(KP_Compare* other, int) override {
        const int order = value_ - dynamic_cast<OneSided&>(*other).value_;
        return (order > 0) == knowsAfter_ ? order : 0;
    }

private:
    int value_;
    bool knowsAfter_;
};

TEST(SortTest, UsesTheWholeAnswerWithMemoryAndWithout) {
    for (const bool knowsAfter : {true, false}) {
        for (const bool hasMemory : {true, false}) {
            OneSided a(1, knowsAfter), b(2, knowsAfter), c(3, knowsAfter), d(4, knowsAfter);
            KP_Object* entries[] = {&c, &a, &d, &b};
            {
                const kp::test::FailingMalloc failing(hasMemory ? 0 : 1,
                                                      kp::test::FailingMalloc::kFromThenOn);
                KP_Tools::sort(entries, 4, nullptr);
            }
            EXPECT_TRUE(entries[0] == &a && entries[1] == &b && entries[2] == &c &&
                        entries[3] == &d)
                << knowsAfter << hasMemory;
        }
    }
}

TEST(TimeTextTest, FollowsTheZoneOfTheEnvironment) {
    const auto hourIn = [](const char* zone) {
        setenv("TZ", zone, 1);
        char text[60];
        KP_Tools::getTimeString1(text);
        return std::string(text).substr(10, 2);
    };
    const char* const before = std::getenv("TZ");
    const std::string kept = before != nullptr ? before : "";
    std::string here;
    std::string there;
    do {  // Again when an hour ends in between.
        here = hourIn("AAA0");
        there = hourIn("BBB-5");
    } while (here != hourIn("AAA0"));
    before != nullptr ? setenv("TZ", kept.c_str(), 1) : unsetenv("TZ");
    EXPECT_EQ((std::stoi(here) + 5) % 24, std::stoi(there));
}

TEST(InstallDirTest, IsTheVariablesTextIfThatIsADirectory) {
    Installation site;
    EXPECT_EQ(KP_Tools::getInstallDir(), site.path());
    site.openLog();
    site.write("file", "");
    // Slashes at the end name the same directory however many there are.
    const std::string longest = site.path() + std::string(255 - site.path().size(), '/');
    for (const std::string& wrong : {site.path("file"), site.path("none"), std::string(),
                                     longest + "/", std::string(5000, '/')}) {
        setenv("KP_INSTALLDIR", wrong.c_str(), 1);
        expectQuit(
            site, [] { KP_Tools::getInstallDir(); },
            "getInstallDir: INSTALLDIR=" + wrong + " does not exist or can't be opened");
    }
    setenv("KP_INSTALLDIR", longest.c_str(), 1);
    EXPECT_EQ(KP_Tools::getInstallDir(), longest);
}

TEST(InstallDirTest, IsFoundBesideTheProgramsFolderWithoutTheVariable) {
    if (std::getenv("KP_TEST_COPY") != nullptr) {  // the copy of this program that is started below
        KP_Log::init("test", 0, nullptr);
        unsetenv("KP_INSTALLDIR");
        KP_Log::log("%s", KP_Tools::getInstallDir());
        _exit(7);
    }
    Installation site;
    const auto statusIn = [&](const std::string& folder) {
        const std::string program = site.path(folder + "/program");
        std::filesystem::create_directories(site.path(folder));
        std::filesystem::copy_file("/proc/self/exe", program);
        const kp::test::Outcome outcome = kp::test::runInChild([&] {
            setenv("KP_TEST_COPY", "", 1);
            return execl(program.c_str(), program.c_str(), "--gtest_filter=InstallDirTest.IsFound*",
                         static_cast<char*>(nullptr));
        });
        EXPECT_EQ(outcome.err, "");
        return outcome.status;
    };
    EXPECT_EQ(statusIn("bin"), 1);
    EXPECT_EQ(site.newLog(), "getInstallDir: INSTALLDIR=" + site.path("bin/../conf") +
                                 " does not exist or can't be opened");
    std::filesystem::create_directory(site.path("conf"));
    EXPECT_EQ(statusIn("other"), 7);
    EXPECT_EQ(site.newLog(), site.path("other/../conf"));
    EXPECT_EQ(statusIn(std::string(150, 'd') + "/" + std::string(150, 'd')), 1);
}

}  // namespace
