// libkp: the lock inside KP_Mutex; a detail that is in a public header only for its size.
#pragma once

#include <atomic>
#include <cstdint>

#include "kp/export.h"

namespace kp::detail {

/// A recursive lock in three words: two atomic operations per uncontended pair of lock and unlock,
/// none for a nested one, and a sleep in the kernel only when another thread holds it.
/// After Ulrich Drepper, "Futexes Are Tricky", with the owner beside the lock word.
class KP_API RecursiveLock {
public:
    RecursiveLock() = default;
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void lock();
    /// Takes the lock if that needs no waiting; returns whether it did.
    bool tryLock();
    /// Gives up one level. Only the thread that holds the lock may call it.
    void unlock();
    /// Whether some thread holds the lock at this moment.
    bool isLocked() const { return word_.load(std::memory_order_relaxed) != kFree; }

private:
    static constexpr std::uint32_t kFree = 0;
    static constexpr std::uint32_t kHeld = 1;
    static constexpr std::uint32_t kHeldWithSleepers = 2;

    void lockSlowly();

    std::atomic<std::uint32_t> word_{kFree};
    std::uint32_t nested_ = 0;
    std::atomic<const void*> owner_{nullptr};
};

}  // namespace kp::detail
