// What the programs do to the terminal of whoever runs them: its echo, foreign text on it, and a
// word where they cannot go on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "records/database.h"
#include "support/dialog.h"
#include "support/installation.h"
#include "support/program.h"
#include "support/socket_pair.h"
#include "threads/until.h"

namespace {

using kp::test::Outcome;
using namespace std::string_literals;
using Arguments = std::vector<std::string>;

class TerminalTest : public testing::Test {
protected:
    TerminalTest() {
        site_.write("password", "secret\n");
        const Outcome made = kp::test::runProgram(
            KP_CONFIGURE, {"--password-file", site_.path("password"), "--port",
                           std::to_string(port_.number()), "--range", "10.0.0.0/8"});
        EXPECT_EQ(made.status, 0) << made.err;
    }

    kp::test::Installation site_;
    kp::test::OwnPort port_;
};

TEST_F(TerminalTest, CtrlCAtAPasswordPromptGivesTheEchoBack) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        ioctl(slave, TIOCSCTTY, 0);
        for (const int descriptor : {0, 1, 2})
            dup2(slave, descriptor);
        execl(KP_ADMIN, KP_ADMIN, "status", nullptr);
        _exit(127);
    }
    const auto hasEcho = [&] {
        termios state = {};
        tcgetattr(slave, &state);
        return (state.c_lflag & ECHO) != 0;
    };
    std::string shown;
    EXPECT_TRUE(kp::test::until([&] {
        pollfd ready{master, POLLIN, 0};
        char text[256];
        if (poll(&ready, 1, 10) > 0)
            shown.append(text, static_cast<std::size_t>(read(master, text, sizeof text)));
        return shown.find("Password of root") != std::string::npos && !hasEcho();
    })) << shown;
    EXPECT_EQ(write(master, "\3", 1), 1);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    EXPECT_TRUE(hasEcho());
    close(slave);
    close(master);
}

// An engine that refuses a change with the reason that it is given, in a status of one line.
void refuseWith(int listener, const std::string& reason) {
    const int client = accept(listener, nullptr, nullptr);
    const std::string config = kp::test::bigEndian(1, 8) + "\n" + kp::test::bigEndian(8189, 8) +
                               "\n" + kp::test::bigEndian(7, 8) + kp::test::bigEndian(0, 4) +
                               "secret\n" + kp::test::bigEndian(0, 2) + kp::test::bigEndian(0, 4);
    const std::string all =
        "\0\1\0\1"s + config + "\0\0\0\1"s + kp::test::bigEndian(1, 4) + "refusal=" + reason + "\n";
    EXPECT_EQ(send(client, all.data(), all.size(), MSG_NOSIGNAL), static_cast<ssize_t>(all.size()));
    char unread[4096];
    while (recv(client, unread, sizeof unread, 0) > 0) {
    }
    close(client);
}

TEST_F(TerminalTest, NoProgramPassesOnWhatATerminalWouldObey) {
    const std::string evil = "x\x1b[2J\x9b\x32J\xc2\x9b";
    const std::string harmless = "x\\x1B[2J\\x9B2J\\xC2\\x9B";
    kp::test::OwnPort port;
    port.take();
    std::thread engine([&] { refuseWith(port.socket(), evil); });
    const Outcome refused =
        kp::test::runProgram(KP_ADMIN, {"--password-file", site_.path("password"), "--port",
                                        std::to_string(port.number()), "set", "days=3"});
    engine.join();
    EXPECT_EQ(refused.err, "kp-admin: refused: " + harmless + "\n");

    // A file of the right kind whose table is a query with a column that is not there.
    const std::string day = site_.path("db/2023-11-15.sqlite");
    kp::test::runProgram(KP_CAPTURE, {"--record", "--start", "2023-11-15", "--replay",
                                      KP_CAPTURES + "/visit.pcap"s});
    {
        kp::records::Database database(day, kp::records::Database::Access::kWrite);
        database.execute("DROP TABLE transactions");
        database.execute("CREATE VIEW transactions AS SELECT 1 AS time, [" + evil +
                         "]() AS client");
    }
    const std::string general = site_.read("admin/kp-capture_prvt.cfg");
    for (const Outcome& outcome :
         {kp::test::runProgram(KP_QUERY, {"list"}),
          kp::test::runProgram(KP_QUERY, {"--db", site_.path(evil), "list"}),
          kp::test::runProgram(KP_CAPTURE, {"--replay", site_.path(evil)}),
          kp::test::runProgram(KP_CONFIGURE, {"--dir", site_.path("n"), "--password-file", evil}),
          [&] {
              site_.write("admin/kp-captureInstall.cfg", "range " + evil + " 10.0.0.1\n");
              return kp::test::runProgram(KP_CAPTURE, {"--replay", "none"});
          }()}) {
        EXPECT_NE(outcome.status, 0);
        EXPECT_NE(outcome.err, "");
        for (const char bad : {'\x1b', '\x9b', '\xc2'})
            EXPECT_EQ(outcome.err.find(bad), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(site_.read("logs/kp-capture.log").find('\x1b'), std::string::npos);
}

#ifndef KP_SANITIZED  // The sanitizers' own stacks would not fit, either.
TEST_F(TerminalTest, ThreadsThatCannotBeMadeAreToldOnStandardError) {
    const auto withoutThreads = [&](const Arguments& command) {
        // A thread needs a stack of the size of this limit, which no machine has.
        Arguments arguments = {"-c", "ulimit -s 68719476736 && exec \"$@\"", "sh"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return kp::test::runProgram("/bin/sh", arguments);
    };
    const std::string capture = KP_CAPTURES + "/visit.pcap"s;
    kp::test::runProgram(KP_CAPTURE, {"--record", "--replay", capture});
    const Outcome query = withoutThreads({KP_QUERY, "totals"});
    EXPECT_EQ(query.status, 1);
    EXPECT_NE(query.err.find("kp-query: cannot start the threads"), std::string::npos) << query.err;
    const Outcome engine = withoutThreads({KP_CAPTURE, "--replay", capture});
    EXPECT_EQ(engine.status, 1);
    EXPECT_NE(engine.err.find("kp-capture: ended: KP_ThreadList::start: Error starting a thread"),
              std::string::npos)
        << engine.err;
    port_.take();
    const Outcome admin = withoutThreads({KP_ADMIN, "--password-file", site_.path("password"),
                                          "--port", std::to_string(port_.number()), "status"});
    EXPECT_EQ(admin.status, 1);
    EXPECT_NE(admin.err.find("kp-admin: cannot start a thread"), std::string::npos) << admin.err;
}
#endif

}  // namespace
