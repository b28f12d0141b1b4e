// libkp: a lock that many may hold for reading, or one for writing.
#pragma once

#include <cstdint>

#include "kp/core/object.h"
#include "kp/threads/event.h"
#include "kp/threads/mutex.h"

/// A shared lock for readers, an exclusive one for a writer.
///
/// Readers get in whenever no writer holds the lock, also while writers wait: under a steady stream
/// of readers a writer can wait for ever. A writer gets in when nobody holds the lock. A release
/// that leaves the lock free wakes one waiting thread; readers that waited come in one after
/// another.
///
/// Not recursive: a thread that holds the lock and asks for it again waits for ever, unless it
/// reads and asks to read, and then gives up as often.
///
/// Works with std::shared_lock for reading, std::unique_lock and std::lock_guard for writing.
/// Order: what a thread did before it released is visible to those that get in after it.
/// Lifetime: nobody may hold it or wait for it when it is destroyed.
class KP_API KP_ReaderWriterMutex : public virtual KP_Object {
public:
    /// A free lock.
    KP_ReaderWriterMutex() = default;
    /// A copy is a lock of its own, and free.
    KP_ReaderWriterMutex(const KP_ReaderWriterMutex& other) : KP_Object(other) {}
    /// Leaves the target's lock as it is.
    KP_ReaderWriterMutex& operator=(const KP_ReaderWriterMutex&) { return *this; }
    ~KP_ReaderWriterMutex() override;

    /// Takes the lock for reading; waits while a writer holds it. Returns 0.
    int rLock();
    /// Gives the read lock up, which the caller holds; returns 0.
    int rUnlock();
    /// Takes the lock for writing; waits while anybody holds it. Returns 0.
    int wLock();
    /// Gives the write lock up, which the caller holds; returns 0.
    int wUnlock();

    /// The same under the names that the standard guards call.
    void lock() { wLock(); }
    void unlock() { wUnlock(); }
    void lock_shared() { rLock(); }
    void unlock_shared() { rUnlock(); }

private:
    void waitForRelease();

    std::int32_t readers_ = 0;
    std::int32_t writers_ = 0;
    KP_Mutex mutex_;
    KP_Event event_;
};
