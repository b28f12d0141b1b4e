#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "kp/tools/tools.h"
#include "support/child.h"
#include "support/installation.h"
#include "support/socket_pair.h"
#include "wire/socket_error.h"

namespace {

using kp::detail::socketErrorText;

TEST(SocketErrorTest, NumbersOutsideTheTableAreUnknown) {
    const struct {
        int number;
        const char* text;
    } cases[] = {{10004, "Interrupted system call"}, {10048, "Address already in use"},
                 {10071, "The object is remote"},    {10091, "System not ready"},
                 {10093, "Not initialized"},         {11001, "Host not found"},
                 {11004, "No data record available"}};
    for (const auto& each : cases) {
        EXPECT_STREQ(socketErrorText(each.number), each.text);
    }
    for (const int number : {0, -1, 98, 10003, 10005, 10034, 10072, 10090, 10094, 11000, 11005}) {
        EXPECT_STREQ(socketErrorText(number), "Unknown") << number;
    }
    int known = 0;
    for (int number = 10000; number < 12000; ++number) {
        known += std::string(socketErrorText(number)) != "Unknown" ? 1 : 0;
    }
    EXPECT_EQ(known, 50);
}

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(SocketTest, TellsAFreePortFromATakenOneAndLeavesNothingOpen) {
    kp::test::Installation site;
    site.openLog();
    const kp::test::OwnPort port;
    const long before = openDescriptors();
    EXPECT_EQ(KP_Tools::testSocket(port.number()), 1);
    EXPECT_EQ(KP_Tools::testSocket(port.number() + 65536), 1);
    EXPECT_EQ(KP_Tools::testSocket(0), 1);
    EXPECT_EQ(site.newLog(), "");
    port.take();
    EXPECT_EQ(KP_Tools::testSocket(port.number()), 0);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(site.newLog(), "TIME - bind: Address already in use\n");
    const kp::test::Outcome outcome = kp::test::runInChild([&] {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        return KP_Tools::testSocket(port.number()) == 0 ? 7 : 0;
    });
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(site.newLog(), "TIME - socket: Too many open files\n");
}

}  // namespace
