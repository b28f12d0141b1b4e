// libkp: objects that live until the last of their users lets go.
#pragma once

#include <atomic>
#include <cstdint>

#include "kp/core/object.h"

/// Counts references: a new object has one, addRef() adds one, release() gives one up.
///
/// The release() that gives up the last reference calls preRelease() while the object is still
/// whole, then destroys it; nobody may touch the object afterwards. On a count of 0 or less, which
/// only a derived class or a copy of its object can have, release() does nothing.
///
/// Threads: addRef() and release() may be called from any thread that owns a reference. What one
/// thread did to the object before its release() is visible to the thread that destroys it.
class KP_API KP_ReferenceCounter : public virtual KP_Object {
public:
    KP_ReferenceCounter() = default;
    /// A copy takes over the count of its source as it is at that moment, and so ends with as many
    /// release()s as its source would have.
    KP_ReferenceCounter(const KP_ReferenceCounter& other);
    KP_ReferenceCounter& operator=(const KP_ReferenceCounter& other);

    /// The last chance to act before the object is destroyed; it cannot be saved any more, so
    /// neither addRef() nor release() may be called on it. The default does nothing.
    virtual void preRelease();

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    void release() override;
    int addRef() override;
    static unsigned long getClassID() { return 0x2BE2BF79; }
    static KP_ReferenceCounter* create();

protected:
    /// The count.
    std::atomic<std::int32_t> references_{1};
};
