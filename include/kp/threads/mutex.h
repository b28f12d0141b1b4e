// libkp: a recursive lock.
#pragma once

#include "kp/core/object.h"
#include "kp/threads/recursive_lock.h"

/// A lock that its holder may take again, and must give up as often as it took it.
///
/// Works with std::lock_guard, std::unique_lock and std::scoped_lock. Many classes of the library
/// derive from it and lock themselves through it.
///
/// Order: what a thread did before unlock() is visible to the thread that locks next. The thread
/// sanitizer of a host is told so, also by a library that was built without it.
/// Fairness: none; a thread that comes at the right moment overtakes one that sleeps.
/// Lifetime: nobody may hold it or wait for it when it is destroyed.
class KP_API KP_Mutex : public virtual KP_Object {
public:
    /// A free lock.
    KP_Mutex() = default;
    /// A copy is a lock of its own, and free.
    KP_Mutex(const KP_Mutex& other) : KP_Object(other) {}
    /// Leaves the target's lock as it is.
    KP_Mutex& operator=(const KP_Mutex&) { return *this; }
    ~KP_Mutex() override;

    /// Takes the lock; waits while another thread holds it.
    virtual void lock();
    /// Gives up one level. The caller must hold the lock.
    virtual void unlock();
    /// 1 while some thread, the caller included, holds the lock; the answer may be old at once.
    virtual int isLocked();
    /// The lock underneath, for identification only; it is no object of the operating system's.
    virtual void* mutex();

    /// Takes the lock if that needs no waiting; returns whether it did.
    bool try_lock() { return lock_.tryLock(); }

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF7A; }
    /// A new mutex, or null when memory runs out.
    static KP_Mutex* create();

private:
    kp::detail::RecursiveLock lock_;
};
