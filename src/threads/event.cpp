#include "kp/threads/event.h"

#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

namespace {

constexpr std::uint32_t kSignal = 1;
constexpr std::uint32_t kWaiter = 1U << 16;

std::uint32_t signalsIn(std::uint32_t state) {
    return state & (kWaiter - 1);
}

std::uint32_t waitersIn(std::uint32_t state) {
    return state >> 16;
}

}  // namespace

KP_Event::~KP_Event() = default;

void KP_Event::announce() {
    state_.fetch_add(kWaiter, std::memory_order_seq_cst);
}

// Takes a signal, and this thread out of the waiting ones; false when there is no signal.
bool KP_Event::take(std::uint32_t* state) {
    while (signalsIn(*state) > 0) {
        if (state_.compare_exchange_weak(*state, *state - kWaiter - kSignal,
                                         std::memory_order_acquire, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

int KP_Event::waitAnnounced(int milliseconds) {
    kp::platform::Deadline deadline;
    if (milliseconds > 0) {
        deadline = kp::platform::deadlineIn(milliseconds);
    }
    bool inTime = true;
    std::uint32_t state = state_.load(std::memory_order_relaxed);
    for (;;) {
        if (take(&state)) {
            return 0;
        }
        if (!inTime) {
            // Only a state without a signal may be left: a signal given meanwhile is this thread's.
            if (state_.compare_exchange_weak(state, state - kWaiter, std::memory_order_relaxed)) {
                return -1;
            }
            continue;
        }
        inTime =
            kp::platform::waitWhileEqual(state_, state, milliseconds > 0 ? &deadline : nullptr);
        state = state_.load(std::memory_order_relaxed);
    }
}

void KP_Event::withdraw() {
    std::uint32_t state = state_.load(std::memory_order_relaxed);
    // A signal that was meant for this thread goes with it when nobody else is there to take it.
    std::uint32_t next = 0;
    do {
        next = state - kWaiter;
        if (signalsIn(next) > waitersIn(next)) {
            next -= kSignal;
        }
    } while (!state_.compare_exchange_weak(state, next, std::memory_order_relaxed));
}

int KP_Event::wait(KP_Mutex*, int milliseconds) {
    announce();
    return waitAnnounced(milliseconds);
}

int KP_Event::numWaiting() {
    return static_cast<int>(waitersIn(state_.load(std::memory_order_relaxed)));
}

int KP_Event::signal() {
    std::uint32_t state = state_.load(std::memory_order_seq_cst);
    do {
        if (signalsIn(state) >= waitersIn(state)) {
            return 0;
        }
    } while (!state_.compare_exchange_weak(state, state + kSignal, std::memory_order_seq_cst));
    if (!kp::platform::wakeOne(state_)) {
        std::fprintf(stderr, "setEvent %d", -1);
        std::exit(1);
    }
    return 0;
}

char* KP_Event::getClassName() {
    return kp::detail::className("KP_Event");
}

int KP_Event::queryInterface(unsigned long id, void** out) {
    return kp::detail::answerAs<KP_Event, KP_Object>(this, id, out);
}

KP_Event* KP_Event::create() {
    return new KP_Event;
}
