#include "common/installation_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

namespace kp::programs {

namespace {

constexpr std::chrono::seconds kLongestWait{10};
constexpr std::chrono::milliseconds kTurn{20};

std::system_error fault(int number, const std::string& what) {
    return {number, std::generic_category(), what};
}

// flock() has no limit of its own.
int lock(int descriptor, int operation) {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (flock(descriptor, operation | LOCK_NB) != 0) {
        const bool isBusy = errno == EWOULDBLOCK || errno == EINTR;
        if (!isBusy || std::chrono::steady_clock::now() >= end)
            return errno;
        std::this_thread::sleep_for(kTurn);
    }
    return 0;
}

}  // namespace

InstallationLock::InstallationLock(const std::string& directory, Kind kind)
    : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (descriptor_ < 0)
        throw fault(errno, "cannot lock " + directory);
    const int number = lock(descriptor_, kind == Kind::kAlone ? LOCK_EX : LOCK_SH);
    if (number == 0)
        return;
    close(descriptor_);
    throw fault(number, number == EWOULDBLOCK
                            ? directory + " is being changed by another kp-configure"
                            : "cannot lock " + directory);
}

InstallationLock::~InstallationLock() {
    close(descriptor_);
}

void InstallationLock::sync() const {
    if (fsync(descriptor_) != 0)
        throw fault(errno, "cannot write to the disk");
}

}  // namespace kp::programs
