#include "kp/threads/reader_writer_mutex.h"

KP_ReaderWriterMutex::~KP_ReaderWriterMutex() = default;

// Called with the mutex held, returns with it held. The waiting thread is counted before the mutex
// is let go, so that a release in between finds it.
void KP_ReaderWriterMutex::waitForRelease() {
    const std::uint32_t last = event_.announce();
    mutex_.unlock();
    event_.waitAnnounced(last, 0);
    mutex_.lock();
}

int KP_ReaderWriterMutex::rLock() {
    mutex_.lock();
    while (writers_ != 0) {
        waitForRelease();
    }
    ++readers_;
    mutex_.unlock();
    return 0;
}

int KP_ReaderWriterMutex::rUnlock() {
    mutex_.lock();
    if (--readers_ == 0) {
        event_.signal();
    }
    mutex_.unlock();
    return 0;
}

int KP_ReaderWriterMutex::wLock() {
    mutex_.lock();
    while (writers_ != 0 || readers_ != 0) {
        waitForRelease();
    }
    ++writers_;
    mutex_.unlock();
    return 0;
}

int KP_ReaderWriterMutex::wUnlock() {
    mutex_.lock();
    if (--writers_ == 0) {
        event_.signal();
    }
    mutex_.unlock();
    return 0;
}
