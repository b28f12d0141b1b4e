// kp-capture: what signals do to an engine.
//
//   INT, TERM, QUIT    end it in order; a second one of them ends it at once with status 1
//   HUP                opens the log anew and reads the installation file again
//   ALRM, USR1, USR2   nothing
//   PIPE, XFSZ         nothing: whoever writes gets an error instead
#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "kp/kp.h"

namespace kp::capture {

/// Before there are other threads: keeps SIGHUP for a Caretaker, also one that comes before
/// there is one, and makes those do nothing that would end a process without a word.
void holdSignals();

/// Does what must delay no other thread: calls @p hungUp for each SIGHUP, and @p everySecond.
class Caretaker : public KP_Thread {
public:
    Caretaker(std::function<void()> hungUp, std::function<void()> everySecond)
        : hungUp_(std::move(hungUp)), everySecond_(std::move(everySecond)) {}
    ~Caretaker() override { end(); }

    /// Ends the thread; whatever the functions use may go afterwards. Not for the thread itself.
    void end();

    int doTask() override;

private:
    const std::function<void()> hungUp_;
    const std::function<void()> everySecond_;
    std::atomic<bool> isEnding_{false};
};

}  // namespace kp::capture
