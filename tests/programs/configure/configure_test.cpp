// kp-configure: what it writes loads, and what would not load it refuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "kp/kp.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

using kp::test::Installation;
using kp::test::Outcome;
using Arguments = std::vector<std::string>;

class ConfigureTest : public testing::Test {
protected:
    ConfigureTest() { site_.write("password", "open sesame\n"); }

    Outcome configure(Arguments more, const std::string& directory = "new") {
        Arguments arguments = {"--dir", site_.path(directory), "--password-file",
                               site_.path("password")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return kp::test::runProgram(KP_CONFIGURE, arguments);
    }

    mode_t permissions(const std::string& below) {
        struct stat status = {};
        EXPECT_EQ(::stat(site_.path(below).c_str(), &status), 0) << below;
        return status.st_mode & 0777;
    }

    Installation site_;
};

TEST_F(ConfigureTest, WritesAnInstallationThatLoadsWithAllItsSettings) {
    const kp::test::OwnPort port;
    const Outcome outcome = configure({"--name",    "engine-1",
                                       "--port",    std::to_string(port.number()),
                                       "--device",  "eth0",
                                       "--range",   "10.0.0.1-10.0.0.1",
                                       "--range",   "192.168.7.9/24",
                                       "--filter",  "tcp port 80 or port 8080",
                                       "--days",    "30",
                                       "--mime",    "text/html=HTM,html",
                                       "--mime",    "image/gif=",
                                       "--network", "10.9.8.7/255.255.0.0",
                                       "--network", "10.1.1.1/32"});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(permissions("new/admin/engine-1_prvt.cfg"), 0600U);
    EXPECT_EQ(permissions("new/admin/engine-1_prvtDef.cfg"), 0600U);

    const auto load = [&] {
        ::setenv("KP_INSTALLDIR", site_.path("new").c_str(), 1);
        KP_Log::init("test", 0, nullptr);
        KP_ConfigAdmin admin;
        admin.setName("engine-1");
        admin.init();
        KP_ConfigDef def;
        def.setName("engine-1");
        def.init();
        def.print(stdout);
        admin.print(stdout);
        std::fflush(stdout);
        return 0;
    };
    const Outcome loaded = kp::test::runInChild(load);
    EXPECT_EQ(loaded.status, 0) << site_.read("new/logs/test.log");
    const std::string general =
        "filterProgram        = 'tcp port 80 or port 8080'\nnetStatsEnabled      = '0'\n";
    EXPECT_NE(loaded.out.find("databaseDir          = ''\ndevice               = ''\n" + general),
              std::string::npos);
    EXPECT_NE(loaded.out.find("databaseDir          = '" + site_.path("new") +
                              "/db'\ndevice               = 'eth0'\n" + general +
                              "connectionPort       = " + std::to_string(port.number()) +
                              "\ndaysOfDataToKeep     = 30\n\n  IP Ranges: # = 2\n"
                              "    10.0.0.1  10.0.0.1\n    192.168.7.0  192.168.7.255\n\n"
                              "  MIME types: # = 2\n      text/html ( htm html )\n"
                              "      image/gif ( )\n\n# Root user\npassword{open sesame}\n"
                              "applyNetAddress{1}\nnumOfNets{2}\n"
                              "exampleAddress{10.9.8.7 10.1.1.1}\n"
                              "maskAddress{255.255.0.0 255.255.255.255}\n"),
              std::string::npos)
        << loaded.out;
}

TEST_F(ConfigureTest, RefusesWhatTheLibraryWouldRefuseAndWritesNothing) {
    const std::string long128(128, 'x');
    Arguments manyRanges;
    for (int i = 0; i < 65; ++i) {
        manyRanges.insert(manyRanges.end(), {"--range", "10.0.0.0/24"});
    }
    const Arguments refused[] = {
        {"--port", "254"},
        {"--port", "65536"},
        {"--days", "0"},
        {"--days", "2147483648"},
        {"--name", ""},
        {"--name", "a/b"},
        {"--name", "a.b"},
        {"--name", long128},
        {"--device", "eth0 # card"},
        {"--device", long128},
        {"--dbpath", site_.path("a b")},
        {"--range", "10.0.0.9-10.0.0.1"},
        {"--range", "10.0.0.1"},
        {"--range", "10.0.0.1-255.255.255.255"},
        {"--range", "0.0.0.0/0"},
        {"--range", "10.0.0.0/33"},
        {"--range", "10.0.0/24"},
        {"--filter", "tcp prot 80"},
        {"--filter", "tcp or\nudp"},
        {"--filter", "tcp" + std::string(509, ' ')},
        {"--mime", "text/html"},
        {"--mime", "=htm"},
        {"--mime", std::string(64, 't') + "=htm"},
        {"--mime", "a/b=" + std::string(16, 'e')},
        {"--mime", "a/b=1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17"},
        {"--mime", "a/b=x,,y"},
        {"--network", "10.0.0.1"},
        {"--network", "255.255.255.255/32"},
        {"--network", "1.0.0.0/8", "--network", "2.0.0.0/8", "--network", "3.0.0.0/8", "--network",
         "4.0.0.0/8", "--network", "5.0.0.0/8", "--network", "6.0.0.0/8"},
        manyRanges,
    };
    for (const Arguments& arguments : refused) {
        const Outcome outcome = configure(arguments);
        EXPECT_EQ(outcome.status, 1) << arguments.back();
        EXPECT_EQ(outcome.err.rfind("kp-configure: ", 0), 0U) << outcome.err;
        EXPECT_FALSE(::access(site_.path("new").c_str(), F_OK) == 0) << arguments.back();
    }
    for (const char* password : {"", "\n", "with{brace", "with\ttab", "} "}) {
        site_.write("password", password);
        EXPECT_EQ(configure({}).status, 1) << password;
    }
    EXPECT_EQ(configure({"--nonsense"}).status, 2);
}

TEST_F(ConfigureTest, OverwritesOnlyWhenForcedAndKeepsTheOldFilesWhenItFails) {
    const Outcome first = configure({"--days", "3"});
    ASSERT_EQ(first.status, 0);
    EXPECT_NE(first.out.find("only this machine may administer"), std::string::npos) << first.out;
    const std::string before = site_.read("new/admin/kp-capture_prvt.cfg");
    const Outcome again = configure({"--days", "4"});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("--force"), std::string::npos);
    EXPECT_EQ(configure({"--days", "0", "--force"}).status, 1);
    EXPECT_EQ(site_.read("new/admin/kp-capture_prvt.cfg"), before);
    EXPECT_EQ(configure({"--days", "4", "--force"}).status, 0);
    EXPECT_NE(site_.read("new/admin/kp-capture_prvt.cfg"), before);
}

TEST_F(ConfigureTest, AFaultInTheMiddleLeavesAllFilesAsTheyWere) {
    ASSERT_EQ(configure({"--days", "3"}).status, 0);
    const std::string before = site_.read("new/admin/kp-capture_prvt.cfg");
    namespace fs = std::filesystem;
    fs::remove(site_.path("new/admin/kp-captureInstall.cfg"));
    fs::create_directories(site_.path("new/admin/kp-captureInstall.cfg/in the way"));
    fs::remove(site_.path("new/admin/kp-capture_prvtDef.cfg"));
    EXPECT_EQ(configure({"--days", "4", "--force"}).status, 1);
    EXPECT_EQ(site_.read("new/admin/kp-capture_prvt.cfg"), before);
    int files = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(site_.path("new/admin"))) {
        EXPECT_EQ(entry.path().filename().string().rfind("kp-capture", 0), 0U) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 2);
}

TEST_F(ConfigureTest, TwoAtATimeWriteTheFilesOfOneOfThem) {
    constexpr int kRounds = 12;
    for (int round = 0; round < kRounds; ++round) {
        kp::test::together(2, [&](int i) {
            const std::string number = std::to_string(1000 + i);
            EXPECT_EQ(configure({"--force", "--days", number, "--port", number}).status, 0);
        });
        const std::string general = site_.read("new/admin/kp-capture_prvt.cfg");
        const std::string number = general.find("\n1000\n") != std::string::npos ? "1000" : "1001";
        EXPECT_NE(general.find("\n" + number + "\n"), std::string::npos);
        EXPECT_EQ(site_.read("new/admin/kp-capture_prvtDef.cfg"), general);
        EXPECT_NE(site_.read("new/admin/kp-captureInstall.cfg").find("port " + number),
                  std::string::npos);
    }
}

TEST_F(ConfigureTest, LeavesNothingBehindAndSaysWhatFailed) {
    const auto limited = [&](const std::string& before, const std::string& directory) {
        return kp::test::runProgram("/bin/sh",
                                    {"-c",
                                     before + "exec \"$0\" --dir \"$1\" --password-file \"$2\"" +
                                         (before.empty() ? " >/dev/full" : ""),
                                     KP_CONFIGURE, site_.path(directory), site_.path("password")});
    };
    const Outcome full = limited("", "full");
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("cannot write to standard output"), std::string::npos) << full.err;
    site_.write("password", std::string(500, 'p') + "\n");  // more than half a kilobyte in all
    const Outcome small = limited("ulimit -f 1; ", "small");
    EXPECT_EQ(small.status, 1) << small.err;
    EXPECT_NE(small.err.find("cannot write"), std::string::npos) << small.err;
    EXPECT_TRUE(std::filesystem::is_empty(site_.path("small/admin")));
    for (const char* umask : {"000", "077"}) {
        const std::string name = std::string("deep/") + umask;
        EXPECT_EQ(limited(std::string("umask ") + umask + "; ", name).status, 0);
        for (const std::string& directory : {name, name + "/admin", name + "/db", name + "/logs"})
            EXPECT_EQ(permissions(directory), 0750U) << directory;
    }
}

TEST_F(ConfigureTest, SaysThatThereIsNoTerminalToAskThePasswordAt) {
    const Outcome outcome = kp::test::runProgram(KP_CONFIGURE, {"--dir", site_.path("new")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("--password-file"), std::string::npos);
}

}  // namespace
