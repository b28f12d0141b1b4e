#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/platform.h"

namespace kp::platform {

namespace {

// The kind of lock that belongs to the opened file: one of the process would be lost as soon as
// anybody in the process closed the file.
bool changeLock(int descriptor, short type) {
    ::lseek(descriptor, 0, SEEK_SET);
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_len = 1;
    return ::fcntl(descriptor, F_OFD_SETLK, &range) == 0;
}

}  // namespace

int openLockFile(const char* path) {
    return ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
}

bool giveToOwner(int descriptor) {
    return ::fchmod(descriptor, S_IRUSR | S_IWUSR) == 0;
}

int descriptorOf(std::FILE* file) {
    return ::fileno(file);
}

void closeFile(int descriptor) {
    ::close(descriptor);
}

bool lockFirstByte(int descriptor) {
    // What is open for reading only cannot have the lock of a writer; what is closed, neither.
    return changeLock(descriptor, F_WRLCK) || (errno == EBADF && changeLock(descriptor, F_RDLCK));
}

bool unlockFirstByte(int descriptor) {
    return changeLock(descriptor, F_UNLCK);
}

}  // namespace kp::platform
