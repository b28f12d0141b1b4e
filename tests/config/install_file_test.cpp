#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "config/sample.h"
#include "kp/config/config_admin.h"
#include "kp/config/config_def.h"
#include "support/child.h"
#include "support/socket_pair.h"

namespace {

using kp::test::expectQuit;
using kp::test::kSample;
using kp::test::Outcome;

class InstallFileTest : public kp::test::InstallationTest {
protected:
    void SetUp() override {
        site_.openLog();
        site_.write("admin/e_prvt.cfg", kSample);
    }
    void init(KP_ConfigAdmin& config, const std::string& content) const {
        site_.write("admin/eInstall.cfg", content);
        config.setName("e");
        EXPECT_EQ(config.init(), 0);
    }
    Outcome outcomeOf(const std::string& content, unsigned port) const {
        return kp::test::runInChild([&] {
            KP_ConfigAdmin config;
            init(config, content);
            return config.connectionPort == port ? 0 : 9;
        });
    }
    void expectFault(const std::string& content, const std::string& log) {
        KP_ConfigAdmin config;
        expectQuit(
            site_, [&] { init(config, content); }, log);
    }
    kp::test::OwnPort port_;
    const std::string portLine_ = "port " + std::to_string(port_.number()) + "\n";
};

TEST_F(InstallFileTest, FillsTheFields) {
    KP_ConfigAdmin config;
    init(config, "# comment\nport 254\n" + portLine_ +
                     "range 10.0.0.1 10.0.0.255\nrange: 192.168.0.1   192.168.0.9 \n"
                     "  device = eth0   # card\nrange=0.0.0.0 255.255.255.254\nunknown 7\n"
                     "dbpath " +
                     site_.path("logs") + " # here\ndevice");
    EXPECT_EQ(config.connectionPort, static_cast<unsigned>(port_.number()));
    EXPECT_STREQ(config.device, "eth0");
    EXPECT_EQ(config.databaseDir, site_.path("logs"));
    const std::uint32_t ranges[] = {0x0A000001, 0x0A0000FF, 0xC0A80001, 0xC0A80009, 0, 0xFFFFFFFE};
    EXPECT_EQ(config.numOfIPRanges, 3);
    EXPECT_EQ(std::memcmp(config.ipRanges, ranges, sizeof ranges), 0);

    std::string many = portLine_ + "device default\ndbpath: default\n";
    for (int i = 0; i < 64; ++i) {
        many += "range 1.1.1.2 1.1.1.2\n";
    }
    // The path of the installation may be longer than a value in the file.
    const std::string longest = site_.path() + std::string(250 - site_.path().size(), '/');
    setenv("KP_INSTALLDIR", longest.c_str(), 1);
    init(config, many);
    EXPECT_STREQ(config.device, "");
    EXPECT_EQ(config.databaseDir, longest + "/db");
    EXPECT_EQ(config.numOfIPRanges, 64);
    EXPECT_EQ(config.ipRanges[63].max, 0x01010102U);
    EXPECT_EQ(config.numOfMimeTypes, 2);
    expectFault(many + "range 1.1.1.2 1.1.1.2\n", "Too many ranges in Install.cfg: at most 64");
}

TEST_F(InstallFileTest, FaultsEndTheProcessWithTheirMessage) {
    const std::string address = "Invalid address in Install.cfg: ";
    const std::string syntax = "Invalid syntax in Install.cfg: ";
    const std::string order =
        "TIME - Error in Install.cfg\nMinimum address is greater than maximum address: ";
    const std::string undefined = "TIME - IP address ranges not defined.\nRun configure script.";
    const std::string number = "Capture engine port not a number";
    const std::string outOfRange = "Capture engine port out of range.";
    const std::string database = "readAdminConfigFile: can't open database directory\n ";
    const std::string cases[][2] = {
        {"range default\n", undefined},
        {"port x\nrange default\n", undefined},
        {"range 10.0.0.9 10.0.0.1\n", order + "10.0.0.9"},
        {"range 200.0.0.0 100.0.0.0\n", order + "200.0.0.0"},
        {"range 10.0.0.1\n", syntax + "10.0.0.1"},
        {"range 10.0.0.1\t10.0.0.9\n", syntax + "10.0.0.1\t10.0.0.9"},
        {"range\n", syntax},
        {"range 10.0.0.1 255.255.255.255\n", address + "255.255.255.255"},
        {"range 255.255.255.255 255.255.255.255\n", address + "255.255.255.255"},
        {"range 10.0.0.1 default\n", address + "default"},
        {"range x  10.0.0.1\n", address + "x"},
        {"range 10.0.0.1 \n", address},
        {"dbpath " + site_.path("none") + "\nport x\n", database + site_.path("none")},
        {"dbpath " + site_.path("file") + "\n", database + site_.path("file")},
        {"dbpath\n", database},
        {"port 254\n", outOfRange},
        {"port 65536\n", outOfRange},
        {"port 99999999999999999999999999\n", outOfRange},
        {"port\n", outOfRange},
        {"port 8o89\n", number},
        {"port -300\n", number},
        {"portnumber 9000\n", number},
        {"device " + std::string(128, 'd') + "\n",
         "TIME - readConfig: the value of device has more than 127 characters\n"
         "readAdminConfigFile: the value of device is too long"},
    };
    site_.write("file", "");
    for (const auto& each : cases) {
        expectFault(each[0], each[1]);
    }
    port_.take();
    expectFault(portLine_,
                "TIME - bind: Address already in use\nCapture engine port already in use.");
    std::filesystem::remove(site_.path("db"));
    expectFault("", database + site_.path("db"));
}

// Ports of fixed number are the machine's: one that it uses or keeps for itself is not our fault.
TEST_F(InstallFileTest, PortsAtTheirLimitsAreInRange) {
    const std::pair<const char*, unsigned> cases[] = {
        {"", 8189}, {"port default\n", 8189}, {"port 255\n", 255}, {"port=65535\n", 65535}};
    for (const auto& [content, port] : cases) {
        const Outcome outcome = outcomeOf(content, port);
        const std::string log = site_.newLog();
        EXPECT_TRUE((outcome.status == 0 && log.empty()) ||
                    (outcome.status == 1 && log.find("port already in use.") != std::string::npos))
            << content << outcome.status << log;
    }
}

TEST_F(InstallFileTest, CutOffOrSpoiltItEndsInOrder) {
    const std::string whole = portLine_ + "range 10.0.0.1 10.0.0.255\nrange 1.1.1.1 1";
    const std::string tails[] = {"", "\n", std::string(5000, '1') + "\n",
                                 std::string(2, '\0') + "\n"};
    for (std::size_t size = portLine_.size(); size <= whole.size(); ++size) {
        for (const std::string& tail : tails) {
            const Outcome outcome =
                outcomeOf(whole.substr(0, size) + tail, static_cast<unsigned>(port_.number()));
            EXPECT_TRUE(outcome.status == 0 || outcome.status == 1) << size << outcome.err;
        }
    }
}

TEST_F(InstallFileTest, CreateReadsTheFilesOfTheEmptyName) {
    const auto missing = [this](const char* file) {
        return "TIME -  \n" + site_.path(file) + ": Problem opening file";
    };
    expectQuit(
        site_, [] { KP_ConfigDef::create(); }, missing("admin/_prvtDef.cfg"));
    site_.write("admin/_prvtDef.cfg", kSample);
    KP_ConfigDef* standard = KP_ConfigDef::create();
    EXPECT_EQ(standard->numOfMimeTypes, 2);
    EXPECT_EQ(standard->connectionPort, 0U);
    EXPECT_STREQ(standard->databaseDir, "");
    EXPECT_EQ(standard->init(), 0);  // once more, into the same one
    standard->release();

    expectQuit(
        site_, [] { KP_ConfigAdmin::create(); }, missing("admin/_prvt.cfg"));
    site_.write("admin/_prvt.cfg", kSample);
    expectQuit(
        site_, [] { KP_ConfigAdmin::create(); }, missing("admin/Install.cfg"));
    site_.write("admin/Install.cfg", portLine_);
    KP_ConfigAdmin* admin = KP_ConfigAdmin::create();
    EXPECT_EQ(admin->connectionPort, static_cast<unsigned>(port_.number()));
    admin->release();
}

}  // namespace
