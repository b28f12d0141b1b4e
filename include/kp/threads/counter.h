// libkp: a counter that several threads share.
#pragma once

#include <atomic>
#include <cstdint>

#include "kp/core/object.h"

/// A 32-bit counter whose operations are each one indivisible step; it wraps at both ends.
/// Threads: every operation may be called from any thread at any time.
class KP_API KP_Counter : public virtual KP_Object {
public:
    /// A count of 0.
    KP_Counter() = default;
    /// A copy starts with the count of its source.
    KP_Counter(const KP_Counter& other) : KP_Object(other), count_(other.count_.load()) {}
    KP_Counter& operator=(const KP_Counter& other) {
        count_ = other.count_.load();
        return *this;
    }
    ~KP_Counter() override;

    /// The count at this moment.
    virtual unsigned long getCount();
    /// Adds @p by to the count, or takes it away; wraps at 32 bits.
    virtual void increment(int by);
    virtual void decrement(int by);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF7C; }

private:
    std::atomic<std::uint32_t> count_{0};
};
