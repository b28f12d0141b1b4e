// The mutex and the lock in it, in one file so that the one can be built into the other.
#include "kp/threads/mutex.h"

#include "platform/platform.h"

namespace {

// Its address tells threads apart, for the price of one instruction.
thread_local char threadMark;

}  // namespace

void kp::detail::RecursiveLock::lock() {
    const void* const self = &threadMark;
    if (owner_.load(std::memory_order_relaxed) == self) {
        ++nested_;
        return;
    }
    std::uint32_t expected = kFree;
    if (!word_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        lockSlowly();
    }
    kp::platform::happensAfter(this);
    owner_.store(self, std::memory_order_relaxed);
}

bool kp::detail::RecursiveLock::tryLock() {
    const void* const self = &threadMark;
    if (owner_.load(std::memory_order_relaxed) == self) {
        ++nested_;
        return true;
    }
    std::uint32_t expected = kFree;
    if (!word_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return false;
    }
    kp::platform::happensAfter(this);
    owner_.store(self, std::memory_order_relaxed);
    return true;
}

void kp::detail::RecursiveLock::lockSlowly() {
    // Whoever sleeps leaves the mark that somebody does; the one who wakes cannot know whether it
    // was the last, and keeps the mark.
    while (word_.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) {
        kp::platform::waitWhileEqual(word_, kHeldWithSleepers, nullptr);
    }
}

void kp::detail::RecursiveLock::unlock() {
    if (nested_ > 0) {
        --nested_;
        return;
    }
    owner_.store(nullptr, std::memory_order_relaxed);
    kp::platform::happensBefore(this);
    if (word_.exchange(kFree, std::memory_order_release) == kHeldWithSleepers) {
        kp::platform::wakeOne(word_);
    }
}

KP_Mutex::~KP_Mutex() = default;

void KP_Mutex::lock() {
    lock_.lock();
}

void KP_Mutex::unlock() {
    lock_.unlock();
}

int KP_Mutex::isLocked() {
    return lock_.isLocked() ? 1 : 0;
}

void* KP_Mutex::mutex() {
    return &lock_;
}

char* KP_Mutex::getClassName() {
    return kp::className("KP_Mutex");
}

int KP_Mutex::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Mutex, KP_Object>(this, id, out);
}

KP_Mutex* KP_Mutex::create() {
    return new KP_Mutex;
}
