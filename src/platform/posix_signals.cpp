// Signals, and what may be done inside their handlers.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/platform.h"

namespace kp::platform {

namespace {

// A descriptor of our own beside the log's: once it exists it is never closed, only pointed
// elsewhere, so a handler that runs while the log is closed cannot write into somebody else's file.
std::atomic<int> signalLog{-1};
static_assert(std::atomic<int>::is_always_lock_free);

}  // namespace

void setSignalLog(std::FILE* file) {
    if (file == nullptr && signalLog < 0) {
        return;
    }
    const int target = file != nullptr ? ::fileno(file) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (target < 0) {
        return;
    }
    if (signalLog < 0) {
        signalLog = ::fcntl(target, F_DUPFD_CLOEXEC, 0);
    } else {
        ::dup3(target, signalLog, O_CLOEXEC);
    }
    if (file == nullptr) {
        ::close(target);
    }
}

void writeSignalLog(const char* text, std::size_t size) {
    const int kept = errno;
    const int target = signalLog;
    if (target >= 0 && ::write(target, text, size) < 0) {
        // Nobody could be told.
    }
    errno = kept;
}

bool handleSignal(int number, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    return ::sigaction(number, &action, nullptr) == 0;
}

}  // namespace kp::platform
