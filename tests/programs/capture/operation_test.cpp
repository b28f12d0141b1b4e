// kp-capture when nobody looks after it: signals, losses, and what the log says of them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <vector>

#include "output/losses.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

using kp::capture::LossTeller;
using kp::capture::Lost;
using kp::test::contentOf;
using kp::test::Outcome;
using kp::test::RunningProgram;
using kp::test::until;
using kp::test::with;
using Arguments = std::vector<std::string>;

const char* const kInstallFile = "admin/kp-captureInstall.cfg";
const char* const kLog = "logs/kp-capture.log";
const std::string kVisit = std::string(KP_CAPTURES) + "/visit";

// An engine that watches 10.0.0.0/24, serves, and reads a pipe.
class OperationTest : public testing::Test {
protected:
    OperationTest() {
        site_.write("password", "secret\n");
        configure("10.0.0.0/24");
    }

    void configure(const std::string& range) {
        const Outcome made = kp::test::runProgram(
            KP_CONFIGURE, {"--force", "--password-file", site_.path("password"), "--port",
                           std::to_string(port_.number()), "--range", range});
        EXPECT_EQ(made.status, 0) << made.err;
    }
    // The engine has read the beginning of the capture then, and waits for more.
    void start() {
        const std::string packets = site_.path("packets");
        ASSERT_EQ(::mkfifo(packets.c_str(), 0600), 0);
        engine_ = std::make_unique<RunningProgram>(
            KP_CAPTURE, Arguments{"--serve", "--print", "--replay", packets}, site_.path("output"));
        feed_.open(packets, std::ios::binary);
        capture_ = contentOf(kVisit + ".pcap");
        feed_.write(capture_.data(), kHeader).flush();
        ASSERT_TRUE(until([&] { return status().find("state=reading\n") == 0; }));
    }
    void feedTheRest() {
        feed_.write(capture_.data() + kHeader,
                    static_cast<std::streamsize>(capture_.size()) - kHeader);
        feed_.close();
    }
    std::string admin(Arguments arguments) {
        arguments.insert(arguments.begin(), {"--port", std::to_string(port_.number()),
                                             "--password-file", site_.path("password")});
        return kp::test::runProgram(KP_ADMIN, arguments).out;
    }
    std::string status() { return admin({"status"}); }
    // Sends SIGHUP, and waits for what becomes of it.
    bool hangUp(const std::string& outcome) {
        engine_->send(SIGHUP);
        return until([&] { return status().find("reloaded=" + outcome) != std::string::npos; });
    }

    static constexpr std::streamsize kHeader = 24;
    kp::test::Installation site_;
    kp::test::OwnPort port_;
    std::string capture_;
    std::ofstream feed_;
    std::unique_ptr<RunningProgram> engine_;
};

TEST_F(OperationTest, AHangupOpensTheLogAnewAndTakesTheRangesOfTheInstallationFile) {
    configure("192.168.77.0/24");
    start();
    std::filesystem::rename(site_.path(kLog), site_.path("old.log"));
    const std::string before = site_.read(kInstallFile);
    const std::string after =
        with(before, "192.168.77.0 192.168.77.255", "10.0.0.0 10.0.0.255") + "device other0\n";
    site_.write(kInstallFile, after);
    EXPECT_TRUE(
        hangUp("the installation file was read again: ranges +10.0.0.0-10.0.0.255 "
               "-192.168.77.0-192.168.77.255; device, port and dbpath are taken at the "
               "next start"))
        << status();
    EXPECT_NE(site_.read(kLog).find("was read again: ranges +10.0.0.0"), std::string::npos);
    EXPECT_EQ(site_.read("old.log").find("was read again"), std::string::npos);
    // A client's change of something else keeps them.
    admin({"set", "days=9"});

    const struct {
        const char* line;
        const char* reason;
    } wrong[] = {
        {"range 10.0.0.9 10.0.0.1\n", "ends before it begins"},
        {"range 10.0.0.9\n", "is not two addresses"},
        {"range 10.0.0.9 10.0.0.x\n", "\"10.0.0.x\" in the range"},
        {"range default\n", "is not two addresses"},
        {"port 80\n", "the port \"80\" is not a number from 255 to 65535"},
        {"dbpath /nowhere/at/all\n", "database directory \"/nowhere/at/all\" cannot be opened"},
    };
    for (const auto& each : wrong) {
        site_.write(kInstallFile, "range 1.2.3.4 1.2.3.5\n" + std::string(each.line));
        const std::string refused =
            "the installation file is refused, nothing has changed: " + site_.path(kInstallFile);
        EXPECT_TRUE(hangUp(refused) &&
                    until([&] { return status().find(each.reason) != std::string::npos; }))
            << each.reason << status();
        EXPECT_NE(site_.read(kLog).find(each.reason), std::string::npos);
    }
    feedTheRest();
    EXPECT_TRUE(until([&] { return status().find("state=serving\n") == 0; }));
    EXPECT_EQ(engine_->end(SIGQUIT), 0);
    EXPECT_EQ(site_.read("output"), contentOf(kVisit + ".expected"));
}

TEST_F(OperationTest, SignalsThatAreSentByHabitLoseNothing) {
    start();
    for (const int signal : {SIGUSR1, SIGUSR2, SIGALRM, SIGPIPE, SIGHUP, SIGHUP}) {
        engine_->send(signal);
        EXPECT_EQ(status().find("state=reading\n"), 0U) << signal;
    }
    feedTheRest();
    EXPECT_TRUE(until([&] { return status().find("state=serving\n") == 0; }));
    EXPECT_EQ(engine_->end(SIGTERM), 0);
    EXPECT_EQ(site_.read("output"), contentOf(kVisit + ".expected"));
}

TEST_F(OperationTest, LinesOfTheLogBeginAndEndALineAndTellWhoChangedWhat) {
    site_.write(kLog, "somebody was killed here");
    start();
    site_.write("new", "not to be told\n");
    admin({"set", "days=30", "filter=tcp", "network=127.0.0.0/9", "mime=text/html=htm",
           "password-file=" + site_.path("new")});
    EXPECT_EQ(engine_->end(SIGTERM), 0);
    // The library's last words end no line.
    site_.write(kInstallFile, "port x\n");
    EXPECT_EQ(kp::test::runProgram(KP_CAPTURE, {"--replay", kVisit + ".pcap"}).status, 1);
    const std::string log = site_.read(kLog);
    EXPECT_NE(log.find(" - kp-capture: a client at 127.0.0.1 has changed the configuration: "
                       "filter \"tcp\" instead of \"\", days 30 instead of 7, "
                       "MIME types +text/html=htm, administration from 127.0.0.0/255.128.0.0 "
                       "instead of from 127.0.0.0/255.0.0.0, password changed\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("not to be told"), std::string::npos);
    EXPECT_EQ(log.find("secret"), std::string::npos);
    const std::regex whole("(somebody was killed here|.{15} - .*|called .*|Capture engine port.*)");
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    }
    EXPECT_EQ(log.back(), '\n');
    EXPECT_NE(log.find("\nCapture engine port not a number\n"), std::string::npos) << log;
}

TEST(LossesTest, AreToldAtOnceAndThenOnceAMinuteWithWhatWasAdded) {
    LossTeller teller;
    const auto start = LossTeller::Clock::time_point() + std::chrono::hours(1);
    EXPECT_EQ(teller.tell({}, start), "");
    EXPECT_EQ(teller.tell({5, 0, 0, 0}, start), "losses: 5 packets dropped by the system");
    EXPECT_EQ(teller.tell({9, 1, 0, 0}, start + std::chrono::seconds(59)), "");
    EXPECT_EQ(teller.tell({9, 1, 0, 2}, start + std::chrono::seconds(60)),
              "losses: 4 packets dropped by the system, 1 packets dropped by the interface, "
              "2 transactions not recorded");
    EXPECT_EQ(teller.tell({9, 1, 0, 2}, start + std::chrono::hours(1)), "");
    EXPECT_EQ(teller.tell({9, 1, 0, 3}, start + std::chrono::hours(1)),
              "losses: 1 transactions not recorded");
    EXPECT_EQ(teller.tell({10, 1, 0, 3}, start + std::chrono::hours(1), true),
              "losses: 1 packets dropped by the system");
}

}  // namespace
