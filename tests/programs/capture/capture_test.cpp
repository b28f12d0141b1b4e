// kp-capture over stored captures: the lines it prints, and how it starts, fails and ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"

namespace {

namespace fs = std::filesystem;
using kp::test::contentOf;
using kp::test::Installation;
using kp::test::Outcome;
using Arguments = std::vector<std::string>;

// An installation that watches 10.0.0.0/24.
class CaptureTest : public testing::Test {
protected:
    CaptureTest() {
        site_.write("password", "secret\n");
        configure({"--range", "10.0.0.0/24"});
    }

    void configure(Arguments more) {
        Arguments arguments = {"--force", "--password-file", site_.path("password"), "--port",
                               std::to_string(port_.number())};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Outcome outcome = kp::test::runProgram(KP_CONFIGURE, arguments);
        ASSERT_EQ(outcome.status, 0) << outcome.err;
    }

    Outcome capture(const Arguments& arguments, const std::string& input = "") {
        return kp::test::runProgram(KP_CAPTURE, arguments, input);
    }

    Installation site_;
    kp::test::OwnPort port_;
};

TEST_F(CaptureTest, PrintsTheExpectedLinesOfEveryStoredCapture) {
    int captures = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(KP_CAPTURES)) {
        if (entry.path().extension() != ".expected") {
            continue;
        }
        const bool watched = entry.path().stem().extension() == ".watched";
        const fs::path stem = watched ? entry.path().stem().stem() : entry.path().stem();
        fs::path pcap = fs::path(KP_CAPTURES) / stem;
        pcap += fs::exists(pcap.string() + ".pcap") ? ".pcap" : ".pcapng";
        Arguments arguments = {"--print", "--replay", pcap.string()};
        if (!watched) {
            arguments.emplace_back("--all");
        }
        const Outcome outcome = capture(arguments);
        EXPECT_EQ(outcome.out, contentOf(entry.path())) << pcap << "\n" << outcome.err;
        EXPECT_NE(outcome.err.find("transactions"), std::string::npos) << pcap;
        arguments.insert(arguments.end(), {"--threads", "3"});
        EXPECT_EQ(capture(arguments).out, outcome.out) << pcap;
        ++captures;
    }
    EXPECT_GE(captures, 20);
}

TEST_F(CaptureTest, PrintsAndRecordsAnswersAloneWhenAsked) {
    // The answers of the visit alone.
    const Arguments replay = {"--print", "--replay", KP_CAPTURES "/visit.pcap"};
    configure({"--range", "10.0.0.0/24", "--filter", "src host 203.0.113.80", "--days", "30000"});
    EXPECT_EQ(capture(replay).out, "");
    Arguments alone = replay;
    alone.insert(alone.end(), {"--answers-alone", "--record"});
    const Outcome outcome = capture(alone);
    EXPECT_NE(outcome.out.find(
                  "\t10.0.0.5\t40001\t203.0.113.80\t80\t-\t-\t-\t200\ttext/css\t12\t1\t1\t1\t0\n"),
              std::string::npos)
        << outcome.out;
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 4);
    const auto query = [](const Arguments& arguments) {
        return kp::test::runProgram(KP_QUERY, arguments).out;
    };
    const std::string list = query({"list", "--tsv"});
    EXPECT_NE(list.find("\t-\t-\t-\t301\ttext/html\t0\t1\t1\t0\t0\t0.000\n"), std::string::npos)
        << list;
    // The totals that are kept agree with the rows: four answers, and no request without one.
    const Arguments totals = {"totals", "--by", "day", "--tsv"};
    Arguments counted = totals;
    counted.insert(counted.end(), {"--server", "203.0.113.80"});
    EXPECT_NE(query(totals).find("\t4\t59\t0.000\t0\t3\t1\t0\t0\t3\t3\t0\n"), std::string::npos)
        << query(totals);
    EXPECT_EQ(query(counted), query(totals));
    EXPECT_NE(query({"top", "methods", "--tsv"}).find("-\t4\t59\t"), std::string::npos);
    // Where both directions are there, nothing changes.
    configure({"--range", "10.0.0.0/24"});
    EXPECT_EQ(capture({"--print", "--answers-alone", "--replay", KP_CAPTURES "/visit.pcap"}).out,
              contentOf(KP_CAPTURES "/visit.expected"));
}

TEST_F(CaptureTest, ReadsACaptureFromStandardInput) {
    const std::string pcap = std::string(KP_CAPTURES) + "/pipelining.pcap";
    const Outcome outcome = capture({"--print", "--replay", "-"}, pcap);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, capture({"--print", "--replay", pcap}).out);
    EXPECT_NE(outcome.out, "");
}

TEST_F(CaptureTest, RefusesFilesThatAreNoCaptures) {
    for (const char* name : {"garbage.pcap", "cut.pcap", "empty.pcap", "missing.pcap"}) {
        const Outcome outcome =
            capture({"--print", "--replay", std::string(KP_CAPTURES) + "/" + name});
        EXPECT_EQ(outcome.status, 1) << name;
        EXPECT_NE(outcome.err.find("kp-capture: "), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
}

TEST_F(CaptureTest, WarnsOfWhatDoesNotHappenWithoutRanges) {
    configure({});
    const auto replay = [&](Arguments more) {
        more.insert(more.end(), {"--replay", std::string(KP_CAPTURES) + "/pipelining.pcap"});
        Outcome outcome = capture(more);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome;
    };
    const auto warns = [](const Outcome& outcome, const char* of) {
        return outcome.err.find(std::string("no address ranges are configured, ") + of) !=
               std::string::npos;
    };
    for (const Arguments& nothing :
         {Arguments{"--print"}, Arguments{"--all"}, Arguments{"--record", "--all"}}) {
        const Outcome outcome = replay(nothing);
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(warns(outcome, "nothing is watched")) << outcome.err;
    }
    const Outcome recorded = replay({"--record", "--print", "--all"});
    EXPECT_NE(recorded.out, "");
    EXPECT_TRUE(warns(recorded, "nothing is recorded")) << recorded.err;
    EXPECT_NE(recorded.err.find("recorded     0 transactions\n"), std::string::npos);
    const Outcome printed = replay({"--print", "--all"});
    EXPECT_EQ(printed.out, recorded.out);
    EXPECT_FALSE(warns(printed, "")) << printed.err;
}

TEST_F(CaptureTest, AppliesTheConfiguredFilterToReplays) {
    configure({"--range", "10.0.0.0/24", "--filter", "udp"});
    const Outcome outcome =
        capture({"--print", "--all", "--replay", std::string(KP_CAPTURES) + "/pipelining.pcap"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    // Traffic with VLAN tags passes a filter that does not speak of them.
    configure({"--range", "10.0.0.0/24", "--filter", "tcp port 80"});
    const std::string tagged = std::string(KP_CAPTURES) + "/visit-tagged";
    EXPECT_EQ(capture({"--print", "--all", "--replay", tagged + ".pcap"}).out,
              contentOf(tagged + ".expected"));
}

TEST_F(CaptureTest, TellsWhyItCouldNotStart) {
    const std::string pcap = std::string(KP_CAPTURES) + "/pipelining.pcap";
    const Outcome noDirectory = capture({"--dir", site_.path("none"), "--replay", pcap});
    EXPECT_EQ(noDirectory.status, 1);
    EXPECT_NE(noDirectory.err.find(site_.path("none")), std::string::npos) << noDirectory.err;

    port_.take();
    const Outcome portTaken = capture({"--replay", pcap});
    EXPECT_EQ(portTaken.status, 1);
    EXPECT_NE(portTaken.err.find("Capture engine port already in use."), std::string::npos)
        << portTaken.err;

    EXPECT_EQ(capture({"--replay", pcap, "--device", "lo"}).status, 2);
}

TEST_F(CaptureTest, SaysWhichDeviceItCannotWatch) {
    const Outcome unnamed = capture({});
    EXPECT_EQ(unnamed.status, 1);
    EXPECT_NE(unnamed.err.find("device"), std::string::npos) << unnamed.err;
    const Outcome missing = capture({"--device", "nosuchdevice0"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("nosuchdevice0"), std::string::npos) << missing.err;
}

}  // namespace
