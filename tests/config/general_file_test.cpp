#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "config/sample.h"
#include "kp/config/config_def.h"
#include "support/child.h"

namespace {

using kp::test::expectQuit;
using kp::test::kSample;
using kp::test::Loaded;
using kp::test::Outcome;
using kp::test::runInChild;
using kp::test::with;

class GeneralFileTest : public kp::test::InstallationTest {
protected:
    void SetUp() override { site_.openLog(); }
    // What a file becomes when it is loaded and saved; the log, if that ends the process.
    std::string resaved(const std::string& content) {
        const Outcome outcome =
            runInChild([&] { return Loaded<KP_Config>(site_, content).save(); });
        const std::string log = site_.newLog();
        return outcome.status == 0 ? site_.read("admin/x_prvt.cfg")
                                   : std::to_string(outcome.status) + " " + log + outcome.err;
    }
    // Whether resaved() ended the process as a fault does.
    static bool isFault(const std::string& result) {
        return result.rfind("1 ", 0) == 0 && result.find("readGeneralConfigFile: ") < 16;
    }
};

TEST_F(GeneralFileTest, SavesExactlyWhatItHolds) {
    site_.write("admin/x_prvtDef.cfg", kSample);
    KP_ConfigDef config;
    config.setName("x");
    config.init();
    config.configVersion = 9;
    config.netStatsEnabled = -2;
    std::strcpy(config.mimeTypes[0].postfixes[0], "HTM");
    EXPECT_EQ(config.save(), 0);
    EXPECT_EQ(site_.read("admin/x_prvt.cfg"), kSample);
    EXPECT_STREQ(config.mimeTypes[0].postfixes[0], "htm");
    struct stat status = {};
    EXPECT_EQ(::stat(site_.path("admin/x_prvt.cfg").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);

    KP_Config empty;
    empty.setName("x");
    empty.save();
    std::string expected = kSample;
    const char* const changes[][2] = {{"\n1\n\n# BPF", "\n0\n\n# BPF"},
                                      {"tcp port 80", ""},
                                      {"\n7\n", "\n0\n"},
                                      {"\n2\n", "\n0\n"},
                                      {"Text/HTML\t\t\thtm html \nx/none\t\t\t\n", ""},
                                      {"{a b}", "{}"},
                                      {"{1}", "{0}"},
                                      {"{3}", "{0}"},
                                      {"{192.168.1.7 10.0.0.1 1.2.3.4}", "{}"},
                                      {"{255.255.255.0 255.0.0.0 255.255.255.255}", "{}"}};
    for (const auto& change : changes) {
        expected = with(expected, change[0], change[1]);
    }
    EXPECT_EQ(site_.read("admin/x_prvt.cfg"), expected);
    EXPECT_EQ(resaved(expected), expected);
}

TEST_F(GeneralFileTest, ReadingDerivesTheNetworksAndTouchesNothingElse) {
    struct Preset : KP_Config {
        Preset() {
            std::strcpy(databaseDir, "d");
            std::strcpy(device, "e");
            numOfIPRanges = 3;
            connectionPort = 9;
        }
    };
    const Loaded<Preset> config(site_);
    EXPECT_STREQ(config.databaseDir, "d");
    EXPECT_STREQ(config.device, "e");
    EXPECT_EQ(config.numOfIPRanges, 3);
    EXPECT_EQ(config.connectionPort, 9U);
    EXPECT_EQ(config.configVersion, 1U);
    const std::uint32_t networks[] = {0xC0A80100, 0x0A000000, 0x01020304};
    EXPECT_EQ(std::memcmp(config.netAddress, networks, sizeof networks), 0);
}

TEST_F(GeneralFileTest, TakesValuesUpToTheirLimitsAndCutsTheRest) {
    const std::string filter(511, 'f');
    const std::string type(63, 'T');
    const std::string password(511, 'p');
    const struct {
        std::string from;
        std::string to;
        std::string saved;
    } cases[] = {
        {"tcp port 80", filter.substr(1), filter.substr(1)},
        {"tcp port 80", filter, filter},
        {"{a b}", "{}", "{}"},
        {"{a b}", "{" + password + "}", "{" + password + "}"},
        {"{a b}", "{" + password + "q}", "{" + password + "}"},
        {"Text/HTML\t\t\thtm", " " + type + "U \t HTM", type + "\t\t\thtm"},
        {"htm html ", "A b c d e f g h i j k l m n o 1234567890ABCDEFG",
         "a b c d e f g h i j k l m n o 1234567890abcde "},
        {"{1}", "{-7}", "{-7}"},
        {"{1}", "{}", "{0}"},
        {"192.168.1.7 ", " \t192.168.1.7\t", "192.168.1.7 "},
        {"\n2\n", "\n65538 mappings\n", "\n2\n"},
        {"\n7\n", "\n \t+2147483647 days\n", "\n2147483647\n"},
        {"\n1\n\n# Net", "\nnone\n\n# Net", "\n1\n\n# Net"},
        {"\n1\n\n# BPF", "\n-3\n\n# BPF", "\n1\n\n# BPF"},
        {"\n1\n\n# BPF", "\non\n\n# BPF", "\n0\n\n# BPF"},
        {"255.255}\n\n", "255.255}", "255.255}\n\n"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(resaved(with(kSample, each.from, each.to)), with(kSample, each.from, each.saved));
    }
    for (const char* none : {"{65536}", "{}", "{x}"}) {
        EXPECT_NE(resaved(with(kSample, "{3}", none)).find("numOfNets{0}\nexampleAddress{}\n"),
                  std::string::npos);
    }
    std::string mappings;
    for (int i = 0; i < 65535; ++i) {
        mappings += "t\t\t\t\n";
    }
    const std::string large = with(kSample, "\n2\n", "\n65535\n");
    EXPECT_TRUE(isFault(resaved(large)));
    const std::string full = with(large, "Text/HTML\t\t\thtm html \nx/none\t\t\t\n", mappings);
    EXPECT_TRUE(resaved(full) == full);
}

TEST_F(GeneralFileTest, FaultsEndTheProcessWithTheirMessage) {
    const std::string malformed = "Malformed IP Address: ";
    const struct {
        const char* from;
        const char* to;
        std::string message;
    } cases[] = {
        {"htm html", "a b c d e f g h i j k l m n o p q", "Maximum # of postfixes/type = 16"},
        {"{3}", "{6}", "too many networks"},
        {"{3}", "{-1}", "too many networks"},
        {"{192.168.1.7 ", "{255.255.255.255 ", malformed + "255.255.255.255"},
        {" 1.2.3.4}", " x.0.0.0}", malformed + "x.0.0.0"},
        {" 1.2.3.4}", "}", malformed},
        {"{192.168.1.7 10.0.0.1 1.2.3.4}", "{}", malformed},
        {"{255.255.255.0 ", "{255.255.255.256 ", malformed + "255.255.255.256"},
        {" 255.255.255.255}", "}", malformed},
        {" 255.255.255.255}", " 0xFFFFFFFF}", malformed + "0xFFFFFFFF"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(resaved(with(kSample, each.from, each.to)),
                  "1 readGeneralConfigFile: " + each.message);
    }
    struct Starved : KP_Config {
        int readGeneralConfigFile(std::FILE* file) override {
            std::ungetc(std::getc(file), file);  // it has its buffer now
            const rlimit none = {4096, 4096};
            ::setrlimit(RLIMIT_AS, &none);
            return KP_Config::readGeneralConfigFile(file);
        }
    };
    const std::string large = with(kSample, "\n2\n", "\n65535\n");
    expectQuit(
        site_, [&] { Loaded<Starved>(site_, large).save(); }, "readGeneralConfigFile: no memory");
}

TEST_F(GeneralFileTest, AFileThatIsCutOffIsRefusedOrWhole) {
    for (std::size_t size = 0; size < kSample.size(); ++size) {
        const std::string result = resaved(kSample.substr(0, size));
        EXPECT_TRUE(result == kSample || isFault(result)) << size << " bytes:\n" << result;
    }
}

TEST_F(GeneralFileTest, HostileLinesAreRefusedOrTakenAsWhatIsSaved) {
    std::string noise;
    for (int i = 0; i < 5000; ++i) {
        noise += static_cast<char>(i * i >> 3);
    }
    const std::string nul(3, '\0');
    const std::string longLine(5000, 'x');
    const std::string blankLine(5000, ' ');
    const std::string hostile[] = {"",         "70000", "65535", "-1",     "{}{{}}{65535}",
                                   "%s%n\xFF", nul,     noise,   longLine, blankLine};
    for (const std::string& line : hostile) {
        for (std::size_t start = 0; start < kSample.size();) {
            const std::size_t end = kSample.find('\n', start);
            const std::string result =
                resaved(kSample.substr(0, start) + line + kSample.substr(end));
            EXPECT_TRUE(isFault(result) || resaved(result) == result)
                << line.substr(0, 9) << " at " << start << ":\n"
                << result;
            start = end + 1;
        }
    }
}

TEST_F(GeneralFileTest, OpeningFaultsEndTheProcessWithTheirMessage) {
    const auto open = [](const std::string& file, const char* mode = "r") {
        return [file, mode] { KP_Config::openConfigFile("/admin", file.c_str(), mode); };
    };
    const auto message = [this](const std::string& file, const std::string& text) {
        return site_.path("admin/" + file) + ": " + text;
    };
    site_.write("admin/file", "x");
    std::filesystem::create_directory(site_.path("admin/dir"));
    expectQuit(site_, open("dir"), message("dir", "Permision denied"));
    expectQuit(site_, open("dir", "w"), message("dir", "Permision denied"));
    const std::string longName(300, 'n');
    expectQuit(site_, open(longName), message(longName, "Path too long"));
    // Slashes change no path; 1023 characters are the longest, and what does not fit is not told.
    const std::string slashes(1023 - site_.path("admin/file").size(), '/');
    std::fclose(KP_Config::openConfigFile("/admin", (slashes + "file").c_str(), "r"));
    expectQuit(site_, open(slashes + "/file"), message(slashes + "/fil", "Path too long"));
    const auto openWithoutDescriptors = [&] {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        open("file")();
    };
    expectQuit(site_, openWithoutDescriptors, message("file", "Too many files already open"));
    std::filesystem::permissions(site_.path(), std::filesystem::perms::all);
    std::filesystem::permissions(site_.path("admin/file"), std::filesystem::perms::none);
    const auto openAsNobody = [&] {
        EXPECT_TRUE(::geteuid() != 0 || ::seteuid(65534) == 0);
        open("file")();
    };
    expectQuit(site_, openAsNobody, message("file", "Permision denied"));
    const Outcome outcome = runInChild([&] {
        open("none")();
        return 0;
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "No such file or directory\n");
    EXPECT_EQ(site_.newLog(), "TIME -  \n" + message("none", "Problem opening file"));

    std::filesystem::remove_all(site_.path("admin"));
    const std::string noDirectory =
        "openConfigFile: " + site_.path("admin") + " can't open directory";
    expectQuit(site_, open("file", "w"), noDirectory);
    site_.write("admin", "a file");
    expectQuit(site_, open("file"), noDirectory);
    setenv("KP_INSTALLDIR", "/", 1);
    expectQuit(
        site_, [] { KP_Config::openConfigFile(std::string(1023, '/').c_str(), "x", "r"); },
        "openConfigFile: " + std::string(1023, '/') + " can't open directory");
}

}  // namespace
