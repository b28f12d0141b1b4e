// libkp: a hook that the log keeps for a host program.
#pragma once

#include <type_traits>

#include "kp/export.h"

/// What a host wants to be told when the process ends; KP_Log::init() keeps one.
///
/// The library neither calls the handler nor hands it out again: a host's own shutdown code keeps
/// it, too, and calls it. Objects of derived classes are not to be deleted through this class,
/// which has no virtual destructor.
class KP_API KP_ExitHandler {
public:
    KP_ExitHandler() = default;
    /// There is nothing to copy.
    KP_ExitHandler(const KP_ExitHandler&) = default;
    KP_ExitHandler& operator=(const KP_ExitHandler&) { return *this; }

    /// Called by the host with the @p message of the fault, which stays the caller's and is not to
    /// be written to. The default does nothing.
    virtual void handleExit(char* message);
    /// The same for a message that is constant, such as a literal.
    template <class Char, class = std::enable_if_t<std::is_same_v<Char, const char>>>
    void handleExit(Char* message) {
        handleExit(const_cast<char*>(message));
    }
};
