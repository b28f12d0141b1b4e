// Marks the stretches of a loop that a hard stop may break off, and those that it may not.
#pragma once

#include "platform/platform.h"

namespace kp::detail {

/// Allows or forbids, for its lifetime, that the current thread's work is broken off.
/// Allowing breaks it off at once when somebody asked for it before.
class Abandonable {
public:
    explicit Abandonable(bool allowed) : before_(kp::platform::setAbandonable(allowed)) {}
    Abandonable(const Abandonable&) = delete;
    Abandonable& operator=(const Abandonable&) = delete;
    ~Abandonable() { kp::platform::setAbandonable(before_); }

private:
    bool before_;
};

}  // namespace kp::detail
