#include "control/confinement.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <thread>

#include "support/child.h"
#include "support/installation.h"

namespace {

using kp::test::Outcome;
using kp::test::runInChild;

// The value of a line of the process's status.
std::string statusOf(const std::string& name) {
    std::ifstream status("/proc/thread-self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
        }
    }
    return "";
}

TEST(ConfinementTest, GivesUpRightsAndCallsForAllThreadsToCome) {
    const kp::test::Installation site;
    const Outcome outcome = runInChild([&] {
        const std::string line = kp::capture::confine(false, {site.path()});
        bool isGood = line.find("could not") == std::string::npos;
        std::thread([&] {
            isGood = isGood && statusOf("CapEff") == "0000000000000000" &&
                     statusOf("CapPrm") == "0000000000000000" && statusOf("NoNewPrivs") == "1" &&
                     statusOf("Seccomp") == "2";
            errno = 0;
            ::execl("/bin/true", "true", static_cast<char*>(nullptr));
            isGood = isGood && errno == EPERM && ::umount2("/nowhere", 0) != 0 && errno == EPERM;
        }).join();
        site.write("file", "still written");
        return isGood && site.read("file") == "still written" ? 7 : 1;
    });
    EXPECT_EQ(outcome.status, 7) << outcome.err;
}

TEST(ConfinementTest, KeepsTheRightToPassOverPermissionsOnlyForDirectoriesOfOthers) {
    const kp::test::Installation site;
    if (::geteuid() != 0) {
        return;  // Nobody else has that right.
    }
    ASSERT_EQ(::chown(site.path().c_str(), 65534, 65534), 0);
    const Outcome outcome = runInChild([&] {
        const std::string line = kp::capture::confine(true, {site.path("db"), site.path()});
        site.write("file", "written");
        return line.find("CAP_NET_RAW CAP_DAC_OVERRIDE") != std::string::npos &&
                       statusOf("CapEff") == "0000000000002002"
                   ? 7
                   : 1;
    });
    EXPECT_EQ(outcome.status, 7) << outcome.err;
}

}  // namespace
