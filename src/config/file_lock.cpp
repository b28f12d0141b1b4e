#include "kp/config/file_lock.h"

#include <cerrno>
#include <cstdlib>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

KP_FileLock::KP_FileLock(const KP_FileLock& other) : KP_Object(other), fd_(other.fd_), ownsFD_(0) {}

KP_FileLock& KP_FileLock::operator=(const KP_FileLock& other) {
    if (this != &other) {
        use(other.fd_, ownsFD_ != 0 && fd_ == other.fd_);  // what it has opened stays its own
    }
    return *this;
}

KP_FileLock::~KP_FileLock() {
    use(0, false);
}

// Takes another descriptor, and closes the one before if it is the lock's own.
void KP_FileLock::use(int descriptor, bool owns) {
    if (ownsFD_ != 0 && fd_ != 0 && fd_ != descriptor) {
        kp::platform::closeFile(fd_);
    }
    isHeld_ = isHeld_ && fd_ == descriptor;
    fd_ = descriptor;
    ownsFD_ = owns ? 1 : 0;
}

int KP_FileLock::open(const char* path) {
    int descriptor = kp::platform::openLockFile(path);
    if (descriptor < 0 && errno == EAGAIN) {
        KP_Tools::sleep(1);
        descriptor = kp::platform::openLockFile(path);
    }
    if (descriptor < 0) {
        std::perror("archiving_openReader");
        KP_Log::ret("archiving_openReader: error opening %s", path);
        use(-1, true);
        return -1;
    }
    use(descriptor, true);
    if (!kp::platform::giveToOwner(descriptor)) {
        std::perror("archiving_openWriter:");
        KP_Log::quit("KP_FileLock: couldn't chmod() lock");
    }
    return 0;
}

int KP_FileLock::setFD(std::FILE* file) {
    return setFD(kp::platform::descriptorOf(file));
}

int KP_FileLock::setFD(int descriptor) {
    use(descriptor, false);
    return 0;
}

int KP_FileLock::lock() {
    while (!kp::platform::lockFirstByte(fd_)) {
        if (errno != EDEADLK) {
            // Not by sys_err_str(), whose one buffer other threads' locks would write to as well.
            KP_Log::debug("my_lockf: can't F_LOCK, (errno = %d)", errno);
            isHeld_ = false;
            return 0;
        }
        KP_Log::debug("my_lockf: recovering from deadlock detection");
        KP_Tools::sleep(1);
    }
    isHeld_ = true;
    return 0;
}

int KP_FileLock::unlock() {
    bool isGood = kp::platform::unlockFirstByte(fd_);
    if (isGood && !isHeld_) {
        // Asked for a lock that is not there, the system is content.
        isGood = false;
        errno = EACCES;
    }
    if (!isGood) {
        KP_Log::debug("my_unlockf: can't F_LOCK, (errno = %d)", errno);
    }
    isHeld_ = false;
    return 0;
}
