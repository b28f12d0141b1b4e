#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "kp/tools/tools.h"
#include "support/child.h"
#include "support/installation.h"
#include "support/socket_pair.h"

namespace {

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
