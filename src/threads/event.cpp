#include "kp/threads/event.h"

#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

namespace {

constexpr std::uint64_t kSignal = 1;
constexpr std::uint64_t kWaiter = std::uint64_t{1} << 16;
constexpr std::uint64_t kNumber = std::uint64_t{1} << 32;

std::uint64_t signalsIn(std::uint64_t state) {
    return state & (kWaiter - 1);
}

std::uint64_t waitersIn(std::uint64_t state) {
    return (state & (kNumber - 1)) >> 16;
}

std::uint32_t numberIn(std::uint64_t state) {
    return static_cast<std::uint32_t>(state >> 32);
}

}  // namespace

KP_Event::~KP_Event() = default;

std::uint32_t KP_Event::announce() {
    return numberIn(state_.fetch_add(kWaiter, std::memory_order_seq_cst));
}

// Takes a signal, and this thread out of the waiting ones; false when there is none for it.
bool KP_Event::take(std::uint64_t* state, std::uint32_t last) {
    while (signalsIn(*state) > 0 && numberIn(*state) != last) {
        if (state_.compare_exchange_weak(*state, *state - kWaiter - kSignal,
                                         std::memory_order_acquire, std::memory_order_relaxed)) {
            kp::platform::happensAfter(this);
            return true;
        }
    }
    return false;
}

// Takes this thread out of the waiting ones; false when the state was another one meanwhile.
bool KP_Event::leave(std::uint64_t* state) {
    std::uint64_t next = *state - kWaiter;
    // A signal that was meant for this thread goes with it when nobody else is there to take it.
    if (signalsIn(next) > waitersIn(next)) {
        next -= kSignal;
    }
    return state_.compare_exchange_weak(*state, next, std::memory_order_relaxed);
}

int KP_Event::waitAnnounced(std::uint32_t last, int milliseconds) {
    kp::platform::Deadline deadline;
    if (milliseconds > 0) {
        deadline = kp::platform::deadlineIn(milliseconds);
    }
    bool inTime = true;
    std::uint32_t passedOn = 0;
    for (bool first = true;; first = false) {
        const std::uint32_t bell = bell_.load(std::memory_order_acquire);
        std::uint64_t state = state_.load(std::memory_order_relaxed);
        if (take(&state, last)) {
            return 0;
        }
        if (!inTime) {
            if (leave(&state)) {
                return -1;
            }
            continue;
        }
        // Woken for a signal that this thread is too late for: the bell was for one of the others,
        // who sleep on it too. Once a bell, or the late ones would wake each other in a circle.
        if (!first && signalsIn(state) > 0 && passedOn != bell) {
            passedOn = bell;
            ring();
        }
        inTime =
            kp::platform::waitWhileEqual(bell_, bell, milliseconds > 0 ? &deadline : nullptr) &&
            !kp::platform::isAbandonWanted();
    }
}

void KP_Event::withdraw() {
    std::uint64_t state = state_.load(std::memory_order_relaxed);
    while (!leave(&state)) {
    }
}

int KP_Event::wait(KP_Mutex*, int milliseconds) {
    return waitAnnounced(announce(), milliseconds);
}

int KP_Event::numWaiting() {
    return static_cast<int>(waitersIn(state_.load(std::memory_order_seq_cst)));
}

int KP_Event::signal() {
    std::uint64_t state = state_.load(std::memory_order_seq_cst);
    std::uint64_t next = 0;
    do {
        if (waitersIn(state) == 0) {
            return 0;
        }
        // Kept signals may be for threads that have gone: the new number makes them everybody's.
        kp::platform::happensBefore(this);
        next = state + kNumber + (signalsIn(state) < waitersIn(state) ? kSignal : 0);
    } while (!state_.compare_exchange_weak(state, next, std::memory_order_seq_cst));
    bell_.fetch_add(1, std::memory_order_release);
    ring();
    return 0;
}

void KP_Event::ring() {
    if (!kp::platform::wakeOne(bell_)) {
        std::fprintf(stderr, "setEvent %d", -1);
        std::exit(1);
    }
}

char* KP_Event::getClassName() {
    return kp::className("KP_Event");
}

int KP_Event::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Event, KP_Object>(this, id, out);
}

KP_Event* KP_Event::create() {
    return new KP_Event;
}
