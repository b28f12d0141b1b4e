// libkp: a lock that processes share through a file.
#pragma once

#include <cstdio>

#include "kp/core/object.h"

/// Locks the first byte of a file, one of its own or one that the caller has open.
///
/// It has the identity of KP_Object, and no create() of its own.
///
/// The lock belongs to the opened file, not to the process: two openings of the same file exclude
/// each other, in one process too; copies of a descriptor, those in a forked child among them,
/// share it. It ends with unlock(), when the last copy of the descriptor is closed, and with the
/// process, however that ends: a lock file that lies about locks nobody out. It keeps out those who
/// ask for it and nobody else.
///
/// As lock() and unlock() always return 0, isHeld() tells whether the lock was got. Their faults go
/// to the log when its debug level is not 0. On a descriptor of a caller's that is open for reading
/// only the lock is shared: others who read may have theirs at the same time, and a writer may not.
///
/// A copy uses the descriptor of its source, which stays the source's, and has not locked it. Both
/// are on the same side: they do not exclude each other, and what one gives back neither has,
/// though the other's isHeld() does not know.
///
/// Threads: one at a time.
class KP_API KP_FileLock : public virtual KP_Object {
public:
    /// A lock without a file; its descriptor is 0, which is also that of standard input: lock()
    /// asks for it.
    KP_FileLock() = default;
    KP_FileLock(const KP_FileLock& other);
    KP_FileLock& operator=(const KP_FileLock& other);
    /// Closes a file that open() opened, and with it ends the lock; leaves any other as it is.
    ~KP_FileLock() override;

    /// Opens @p path for reading and writing, or creates it, gives it to its owner alone (0600),
    /// and closes a file that it had opened before. A system that is short of something for a
    /// moment is asked again after a second. Returns 0, or -1 without a file, with a line in the
    /// log and one on standard error. Ends the process with status 1 when the permissions cannot be
    /// set.
    virtual int open(const char* path);
    /// Uses the descriptor underneath @p file, which is open and stays the caller's. Closes a file
    /// that open() had opened. Returns 0.
    virtual int setFD(std::FILE* file);
    /// Uses @p descriptor, likewise. Handed the one that open() had opened, it leaves that to the
    /// caller. Returns 0.
    virtual int setFD(int descriptor);
    /// Asks for the lock and does not wait for it: when somebody else has it, the lock is not held.
    /// Puts the descriptor's position at the start of the file. Returns 0 always.
    virtual int lock();
    /// Gives the lock of the descriptor back, whoever has locked it; one that this object has not
    /// is reported. Moves the position as lock() does. Returns 0 always.
    virtual int unlock();

    /// Whether the last lock() of this object got it, and it was not given back since.
    bool isHeld() const { return isHeld_; }

protected:
    /// The descriptor: 0 without a file, -1 after an open() that failed.
    std::int32_t fd_ = 0;
    /// Non-zero: the lock closes the descriptor.
    std::int32_t ownsFD_ = 1;

private:
    void use(int descriptor, bool owns);

    bool isHeld_ = false;
};
