// The configuration between engine and front end, in literal bytes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "kp/config/config.h"
#include "support/failing_malloc.h"
#include "support/installation.h"
#include "support/socket_pair.h"

namespace {

using kp::test::SocketPair;
using namespace std::string_literals;

const std::string kHead =
    "\0\0\0\0\0\0\0\x01"s + "eth0\n" + "\0\0\0\0\0\0\x1F\xFD"s + "tcp\n" + "\0\0\0\0\0\0\0\x07"s;
const std::string kMapping = "\0\0\0\x01"s + "text/html\n" + "\0\x02"s + "HTM\nhtml\n";
const std::string kNets = "\0\0\0\x01"s + "10.1.2.3\n255.255.255.255\n";

TEST(ExchangeTest, IsSentAndReceivedInTheseBytes) {
    const SocketPair sockets;
    KP_Config config;
    sockets.send(kHead + kMapping + "secret\n" + "\x01" + kNets);
    ASSERT_EQ(config.readJ(sockets.ours()), 0);
    EXPECT_EQ(config.connectionPort, 8189U);
    EXPECT_STREQ(config.mimeTypes[0].postfixes[0], "HTM");
    EXPECT_EQ(config.maskAddress[0], 0xFFFFFFFFU);
    EXPECT_EQ(config.netAddress[0], 0U);
    ASSERT_EQ(config.writeJ(sockets.ours()), 0);
    EXPECT_EQ(SocketPair::unread(sockets.theirs()),
              kHead + kMapping + "secret\n" + "\0\x01"s + kNets);
}

TEST(ExchangeTest, ReceivesIntoANewArrayAndLeavesTheOldOneToItsOwner) {
    kp::test::Installation site;
    site.openLog();
    KP_Config config;
    const SocketPair sockets;
    const std::string message = kHead + kMapping + "secret\n" + "\x01" + kNets;
    sockets.send(message);
    ASSERT_EQ(config.readJ(sockets.ours()), 0);
    KP_Config::MimeType* const before = config.mimeTypes;
    sockets.send(message);
    {
        const kp::test::FailingMalloc failing(1);
        EXPECT_EQ(config.readJ(sockets.ours()), -1);
    }
    EXPECT_EQ(site.newLog(), "TIME - hcommand_SET_CONFIG: Not enough memory.\n");
    EXPECT_EQ(config.mimeTypes, before);
    SocketPair::unread(sockets.ours());
    sockets.send(message);
    ASSERT_EQ(config.readJ(sockets.ours()), 0);
    EXPECT_NE(config.mimeTypes, before);
    EXPECT_STREQ(before[0].type, "text/html");
    std::free(before);
}

TEST(ExchangeTest, HostileMessagesStayWithinTheirBounds) {
    kp::test::Installation site;
    site.openLog();
    std::string extensions;
    for (int i = 0; i < 255; ++i) {
        extensions += std::string(100, 'x') + "\n";
    }
    const struct {
        std::string message;
        int result;
    } messages[] = {
        {kHead + "\0\0\0\x01"s + std::string(100, 't') + "\n\0\xFF"s + extensions +
             "p\n\2\0\0\0\0"s,
         0},
        {kHead + "\0\0\xFF\xFF"s + "text/html\n\0\0"s, -1},
        {kHead + "\0\0\0\0p\n\1\0\0\0\x10"s, -1},
        {kHead + "\0\0\0\0p\n\1\0\0\0\x01"s + "255.255.255.255\n255.0.0.0\n", -1},
        {kHead + "\0\0\0\0p\n\1\0\0\0\x01"s + "10.0.0.1\n1.2.3.x\n", -1},
        {kHead + "\0\0\0\0p\n\1\0\0\0\x01"s + "\x1b[2J\t\x9b" + "9\n", -1},
        {kHead.substr(0, 9), -1},
        {kHead + "\0\0\0\0p\n\1\0\0\0\x01"s + "10.0.0.1\n255.255.255", -1},  // ends in a line
        {kHead + "\0\0\0\0"s + std::string(511, 'p') + "\n\0\0\0\0\0"s, 0},
        {kHead + "\0\0\0\0"s + std::string(512, 'p') + "\n\0\0\0\0\0"s, -1},
    };
    for (const auto& each : messages) {
        SocketPair sockets;
        sockets.send(each.message);
        sockets.closeTheirs();
        KP_Config config;
        EXPECT_EQ(config.readJ(sockets.ours()), each.result);
        EXPECT_LE(config.numOfNets, KP_Config::kMaxNets);
        if (config.numOfMimeTypes > 0) {
            EXPECT_LE(config.mimeTypes[0].numOfPostfixes, KP_Config::kMaxPostfixes);
            EXPECT_LE(std::strlen(config.mimeTypes[0].type), 63U);
        }
    }
    EXPECT_EQ(site.newLog(),
              "TIME - hcommand_SET_CONFIG: more than 5 networks\n"
              "TIME - hcommand_SET_CONFIG: Malformed IP Address(1): 255.255.255.255\n"
              "TIME - hcommand_SET_CONFIG: Malformed IP Address(2): 1.2.3.x\n"
              "TIME - hcommand_SET_CONFIG: Malformed IP Address(1): ?[2J\t?9\n"
              "TIME - hcommand_SET_CONFIG: a field has more than 511 characters\n");
}

}  // namespace
