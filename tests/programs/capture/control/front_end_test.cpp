// kp-capture's front end over real sockets, and kp-admin as its client.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "support/dialog.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

using kp::test::bigEndian;
using kp::test::Dialog;
using kp::test::Outcome;
using kp::test::RunningProgram;
using namespace std::string_literals;
using Arguments = std::vector<std::string>;

const std::string kYes = "\0\1"s;
const std::string kNo = "\0\0"s;
const std::string kLogin = "root\nsecret\n";
const std::string kLoopback = "network=127.0.0.0/255.0.0.0\n";
const char* const kGeneralFile = "admin/kp-capture_prvt.cfg";

// An engine that has read a stored capture and serves.
class FrontEndTest : public testing::Test {
protected:
    FrontEndTest() {
        site_.write("password", "secret\n");
        const Outcome made = kp::test::runProgram(
            KP_CONFIGURE, {"--password-file", site_.path("password"), "--port",
                           std::to_string(port_.number()), "--range", "10.0.0.0/24"});
        EXPECT_EQ(made.status, 0) << made.err;
    }

    void serve(Arguments more = {}) {
        Arguments arguments = {"--serve"};
        if (more.empty()) {
            more = {"--replay", std::string(KP_CAPTURES) + "/visit.pcap"};
        }
        arguments.insert(arguments.end(), more.begin(), more.end());
        engine_ = std::make_unique<RunningProgram>(KP_CAPTURE, arguments, site_.path("output"));
    }
    Outcome admin(Arguments arguments) {
        arguments.insert(arguments.begin(), {"--port", std::to_string(port_.number()),
                                             "--password-file", site_.path("password")});
        return kp::test::runProgram(KP_ADMIN, arguments);
    }
    // The configuration as the engine sends it; the front end sends the flag as one byte.
    std::string message(int days, const std::string& filter, bool toEngine) const {
        return bigEndian(1, 8) + "\n" + bigEndian(static_cast<unsigned>(port_.number()), 8) +
               filter + "\n" + bigEndian(static_cast<unsigned>(days), 8) + bigEndian(1, 4) +
               "text/html\n" + bigEndian(2, 2) + "html\nhtm\n" + "secret\n" +
               (toEngine ? "\1"s : "\0\1"s) + bigEndian(1, 4) + "127.0.0.0\n255.0.0.0\n";
    }
    std::string emptyMessage() const {
        return bigEndian(1, 8) + "\n" + bigEndian(static_cast<unsigned>(port_.number()), 8) + "\n" +
               bigEndian(7, 8) + bigEndian(0, 4) + "secret\n" + kYes + bigEndian(1, 4) +
               "127.0.0.0\n255.0.0.0\n";
    }

    kp::test::Installation site_;
    kp::test::OwnPort port_;
    std::unique_ptr<RunningProgram> engine_;
};

TEST_F(FrontEndTest, ASessionIsTheseBytes) {
    serve();
    const Dialog dialog(port_.number());
    dialog.send(kLogin);
    EXPECT_EQ(dialog.receive(2), kYes);
    dialog.send("GET_CONFIG\n");
    EXPECT_EQ(dialog.receive(2), kYes);
    EXPECT_EQ(dialog.receive(emptyMessage().size()), emptyMessage());

    const std::string before = site_.read(kGeneralFile);
    dialog.send("SET_CONFIG\n" + message(0, "", true));  // no days at all
    EXPECT_EQ(dialog.receive(2), kNo);
    EXPECT_EQ(site_.read(kGeneralFile), before);
    dialog.send("NONSENSE\r\n");
    EXPECT_EQ(dialog.receive(2), kNo);
    dialog.send("GET_CONFIG\nSET_CONFIG\n" + message(9, "tcp", true));
    EXPECT_EQ(dialog.receive(2), kYes);
    EXPECT_EQ(dialog.receive(emptyMessage().size()), emptyMessage());
    EXPECT_EQ(dialog.receive(2), kYes);
    dialog.send("GET_CONFIG\n");
    EXPECT_EQ(dialog.receive(2), kYes);
    const std::string now = message(9, "tcp", false);
    EXPECT_EQ(dialog.receive(now.size()), now);
    EXPECT_NE(site_.read(kGeneralFile), before);
    EXPECT_EQ(site_.read(kGeneralFile + ".last"s), before);  // the last good one

    dialog.send("GET_STATUS\n");
    EXPECT_EQ(dialog.receive(2), kYes);
    const std::string count = dialog.receive(4);
    EXPECT_EQ(count.substr(0, 3), "\0\0\0"s);
    EXPECT_EQ(dialog.receive(6), "state=");
    // A client that asks for the status all the time while the engine ends.
    std::thread poller([&] {
        while (dialog.send("GET_STATUS\n") && !dialog.isClosed()) {
        }
    });
    EXPECT_EQ(engine_->end(SIGTERM), 0);
    poller.join();
}

TEST_F(FrontEndTest, WrongPasswordsAndHalfMessagesEndTheConnection) {
    serve();
    const Dialog wrong(port_.number());
    wrong.send("root\nSecret\n");
    EXPECT_EQ(wrong.receive(2), kNo);
    EXPECT_TRUE(wrong.isClosed());
    const std::string before = site_.read(kGeneralFile);
    {
        const Dialog half(port_.number());
        half.send(kLogin + "SET_CONFIG\n" + message(9, "", true).substr(0, 40));
    }
    const Dialog endless(port_.number());
    endless.send(kLogin + std::string(4000, 'x'));
    EXPECT_EQ(endless.receive(2), kYes);
    EXPECT_TRUE(endless.isClosed());
    const Dialog after(port_.number());
    after.send(kLogin + "GET_CONFIG\n");
    EXPECT_EQ(after.receive(4 + emptyMessage().size()), kYes + kYes + emptyMessage());
    EXPECT_EQ(site_.read(kGeneralFile), before);
}

TEST_F(FrontEndTest, ASilentClientIsDropped) {
    serve({"--client-timeout", "1", "--replay", std::string(KP_CAPTURES) + "/visit.pcap"});
    const Dialog silent(port_.number());
    const Dialog loggedIn(port_.number());
    loggedIn.send(kLogin + "GET_STA");
    EXPECT_EQ(loggedIn.receive(2), kYes);
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(loggedIn.isClosed());
}

// Four addresses with 64 silent connections each; from whichever address, an administrator gets in.
TEST_F(FrontEndTest, SilentStrangersKeepNobodyOut) {
    serve();
    std::vector<std::unique_ptr<Dialog>> silent;
    for (int i = 0; i < 256; ++i)
        silent.push_back(std::make_unique<Dialog>(
            port_.number(), ("127.0.0." + std::to_string(2 + i % 4)).c_str()));
    for (const char* from : {"127.0.0.1", "127.0.0.9", "127.0.0.2"}) {
        const Dialog honest(port_.number(), from);
        honest.send(kLogin);
        EXPECT_EQ(honest.receive(2), kYes) << from;
    }
    // Whoever has logged in stays, whatever comes.
    const Dialog stays(port_.number(), "127.0.0.2");
    stays.send(kLogin);
    EXPECT_EQ(stays.receive(2), kYes);
    for (int i = 0; i < 256; ++i)
        silent.push_back(std::make_unique<Dialog>(port_.number(), "127.0.0.2"));
    EXPECT_EQ(admin({"status"}).status, 0);
    stays.send("NONSENSE\n");
    EXPECT_EQ(stays.receive(2), kNo);
}

// The time is asserted from below only.
TEST_F(FrontEndTest, GuessesFromOneAddressComeOneASecondAndInOneLineOfTheLog) {
    serve();
    const Dialog ready(port_.number());
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<int> answered{0};
    kp::test::together(4, [&](int) {
        const Dialog guess(port_.number(), "127.0.0.2");
        guess.send("root\nguess\n");
        answered += guess.receive(2) == kNo ? 1 : 0;
    });
    EXPECT_GT(answered, 1);  // Whoever waits too long is let go without an answer.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(answered - 1));
    EXPECT_EQ(engine_->end(SIGTERM), 0);
    const std::string log = site_.read("logs/kp-capture.log");
    const std::size_t first = log.find("a client at 127.0.0.2 was refused");
    ASSERT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("was refused", first + 40), std::string::npos) << log;
    EXPECT_NE(log.find(std::to_string(answered - 1) + " more clients were refused"),
              std::string::npos)
        << log;
}

TEST_F(FrontEndTest, AFileWhoseBlocksAreMisplacedIsNotServed) {
    const std::string whole = site_.read(kGeneralFile);
    for (const std::string& shifted :
         {kp::test::with(whole, "mappings\n\n", "mappings\naudio/ogg\t\t\togg \n\n"),
          kp::test::with(whole, "# BPF filter string", "# " + std::string(1100, 'x')),
          kp::test::with(whole, "{secret}", "{}")}) {
        site_.write(kGeneralFile, shifted);
        const Outcome start = kp::test::runProgram(
            KP_CAPTURE, {"--replay", std::string(KP_CAPTURES) + "/visit.pcap"});
        EXPECT_EQ(start.status, 1);
        EXPECT_NE(start.err.find("kp-capture_prvt.cfg: line "), std::string::npos) << start.err;
    }
}

TEST_F(FrontEndTest, AFileThatWasCutOffStopsTheStartAndNamesTheKeptOne) {
    const std::string whole = site_.read(kGeneralFile);
    site_.write(kGeneralFile, whole.substr(0, whole.size() / 2));
    site_.write(kGeneralFile + ".last"s, whole);
    const Outcome start =
        kp::test::runProgram(KP_CAPTURE, {"--replay", std::string(KP_CAPTURES) + "/visit.pcap"});
    EXPECT_EQ(start.status, 1);
    EXPECT_NE(start.err.find("kp-capture_prvt.cfg.last"), std::string::npos) << start.err;
}

TEST_F(FrontEndTest, AdminShowsAndChangesWhatTheEngineHas) {
    serve();
    const Dialog ready(port_.number());
    const std::string port = "port=" + std::to_string(port_.number()) + "\n";
    EXPECT_EQ(admin({"show"}).out, "device=\n" + port + "filter=\ndays=7\n" + kLoopback);
    // As long as its field: 15 and 63 characters.
    const std::string longest = "mime=" + std::string(63, 't') + "=" + std::string(15, 'e');
    EXPECT_EQ(admin({"set", longest}).status, 0);
    EXPECT_NE(admin({"show"}).out.find(longest), std::string::npos);
    const Outcome set = admin({"set", "days=30", "mime=image/png=png", "mime=text/html=htm,html",
                               "network=127.0.0.0/8", "filter=tcp"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "");
    const std::string changed = "device=\n" + port +
                                "filter=tcp\ndays=30\nmime=image/png=png\n"
                                "mime=text/html=htm,html\n" +
                                kLoopback;
    EXPECT_EQ(admin({"show"}).out, changed);

    const struct {
        Arguments words;
        int status;
        const char* reason;
    } refused[] = {
        {{"set", "days=0"}, 1, "the days must be from 1"},
        {{"set", "days=x"}, 1, "is not a number"},
        {{"set", "port=4000"}, 1, "the port is set in"},
        {{"set", "filter=tcp prt"}, 1, "refused: the filter"},
        {{"set", "filter=" + std::string(512, 'x')}, 1, "more than 511 characters"},
        {{"set", "range=10.0.0.0/8"}, 2, "kp-configure"},
        {{"set", "days"}, 2, "KEY=VALUE"},
        {{"set", "days=1", "days=2"}, 2, "twice"},
        {{"set"}, 2, ""},
        {{"set", "network=10.0.0.0/8"}, 1, "shut out this client, which the engine sees at 127.0."},
        {{}, 2, ""},
        {{"--user", "guest", "show"}, 1, "refused the user or the password"},
    };
    for (const auto& each : refused) {
        const Outcome outcome = admin(each.words);
        EXPECT_EQ(outcome.status, each.status) << each.reason;
        EXPECT_NE(outcome.err.find(each.reason), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
    EXPECT_EQ(admin({"show"}).out, changed);

    // The port is taken; the kept configuration has nothing to do with that.
    const Outcome second =
        kp::test::runProgram(KP_CAPTURE, {"--replay", std::string(KP_CAPTURES) + "/visit.pcap"});
    EXPECT_NE(second.err.find("already in use"), std::string::npos);
    EXPECT_EQ(second.err.find(".last"), std::string::npos) << second.err;

    EXPECT_EQ(admin({"status"}).out.find("state=serving\n"), 0U);
    EXPECT_NE(admin({"watch", "--count", "1"}).out.find("\ntransactions=4\n"), std::string::npos);
    site_.write("new", "other\n");
    EXPECT_EQ(admin({"set", "mime=", "network=", "password-file=" + site_.path("new")}).status, 0);
    EXPECT_EQ(admin({"show"}).status, 1);
    site_.write("password", "other\n");
    EXPECT_EQ(admin({"show"}).out, "device=\n" + port + "filter=tcp\ndays=30\n");
    EXPECT_EQ(admin({"set", "--force", "network=10.0.0.0/8"}).status, 0);
    EXPECT_EQ(admin({"show"}).status, 3);
}

#ifndef KP_SANITIZED  // The sanitizers' own checks need descriptors.
TEST_F(FrontEndTest, AChangeWithTheLastDescriptorsIsMadeOrRefused) {
    const std::string kClose =
        "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ";  // What this process has.
    int refused = 0;
    for (int limit = 9; limit < 14; ++limit) {
        // Each is used up at another place; too few to serve at all end the start.
        engine_ = std::make_unique<RunningProgram>(
            "/bin/sh",
            Arguments{"-c", kClose + "ulimit -n " + std::to_string(limit) + "; exec \"$@\"", "sh",
                      KP_CAPTURE, "--serve", "--no-record", "--replay",
                      std::string(KP_CAPTURES) + "/visit.pcap"},
            site_.path("output"));
        Outcome status = {3, "", "cannot reach"};
        while (status.err.find("cannot reach") != std::string::npos && engine_->isRunning())
            status = admin({"status"});
        if (status.status == 0) {
            refused += admin({"set", "days=" + std::to_string(limit)}).status;
            EXPECT_EQ(admin({"status"}).status, 0) << "the engine has ended with " << limit;
        }
        engine_.reset();
    }
    EXPECT_GT(refused, 0);
}
#endif

TEST_F(FrontEndTest, AdminTellsWhatBecameOfTheEngine) {
    const Outcome unreachable = admin({"show"});
    EXPECT_EQ(unreachable.status, 3);
    EXPECT_NE(unreachable.err.find("cannot reach 127.0.0.1:"), std::string::npos);
    port_.take();  // takes connections and never says a word
    const Outcome silent = admin({"--timeout", "1", "status"});
    EXPECT_EQ(silent.status, 3);
    EXPECT_NE(silent.err.find("did not answer within 1 s"), std::string::npos) << silent.err;
}

// What one client of a crowd does; true for one that was served as it should be.
bool visit(int port, int kind, const std::string& half) {
    if (kind % 5 == 0) {
        const Dialog honest(port);
        honest.send(kLogin + "GET_CONFIG\n");
        const std::string config = honest.receive(4);
        honest.send("QUIT\n");
        return config == kYes + kYes;
    }
    const Dialog hostile(port, "127.0.0.2");
    switch (kind % 5) {
        case 1:
            hostile.send("root\n");  // and nothing more, until the others have gone
            std::this_thread::yield();
            break;
        case 2:
            hostile.send(std::string("\xFF\0\x80\n\n", 5) + std::string(3000, '\xE9'));
            break;
        case 3:
            hostile.send(kLogin + "SET_CONFIG\n" + half);
            break;
        default:
            for (int i = 0; i < 100; ++i) {
                hostile.sendWithoutWaiting(kLogin + std::string(2000, '\n') + "GET_STATUS\n");
            }
    }
    return false;
}

// Fifty at once, again and again, while packets come. KP_LOAD_ROUNDS sets how often.
TEST_F(FrontEndTest, ACrowdOfClientsDisturbsNeitherTheReplayNorTheHonestOnes) {
    constexpr int kCrowd = 50;
    const char* const wanted = std::getenv("KP_LOAD_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 6;
    const std::string name = std::string(KP_CAPTURES) + "/interleaved";
    const std::string packets = site_.path("packets");
    ASSERT_EQ(::mkfifo(packets.c_str(), 0600), 0);
    serve({"--print", "--all", "--client-timeout", "5", "--replay", packets});

    const std::string capture = kp::test::contentOf(name + ".pcap");
    std::ofstream feed(packets, std::ios::binary);
    std::atomic<int> served{0};
    std::size_t fed = 100;  // The engine serves when it has seen that this is a capture.
    feed.write(capture.data(), static_cast<std::streamsize>(fed)).flush();
    long level = 0;
    for (int round = 1; round <= rounds; ++round) {
        const std::size_t end =
            fed + (capture.size() - fed) / static_cast<std::size_t>(rounds - round + 1);
        feed.write(capture.data() + fed, static_cast<std::streamsize>(end - fed)).flush();
        fed = end;
        kp::test::together(kCrowd, [&](int i) {
            served += visit(port_.number(), i, message(9, "", true).substr(0, 30)) ? 1 : 0;
        });
        if (round <= 2) {
            level = engine_->memory();
        }
    }
    feed.close();
    EXPECT_EQ(served, rounds * kCrowd / 5);
    const std::string rows = kp::test::contentOf(name + ".expected");
    EXPECT_TRUE(kp::test::until([&] { return site_.read("output").find(rows) == 0; }))
        << site_.read("output");
    EXPECT_EQ(admin({"show"}).status, 0);
    const long memory = engine_->memory();
    RecordProperty("kilobytes", std::to_string(level) + " then " + std::to_string(memory));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(memory, level + 8192) << "kilobytes, " << level << " after two rounds";
#endif
    EXPECT_EQ(engine_->end(SIGINT), 0);
}

}  // namespace
