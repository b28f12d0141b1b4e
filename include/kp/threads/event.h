// libkp: an auto-reset event that fires only for threads that are waiting.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "kp/core/object.h"

class KP_Mutex;

/// Wakes one waiting thread per signal, and forgets a signal that nobody waits for.
///
/// A thread waits from the moment at which wait() has counted it, asleep or not: a signal after
/// that releases it. As many signals as there are waiting threads are kept, each for one of them.
///
/// Threads: every operation may be called from any thread at any time, by up to 65535 that wait.
/// Order: what a thread wrote before signal() is visible to the thread that it releases.
///
/// Lifetime: nobody may be inside an operation of the event when it is destroyed. A thread that is
/// released goes on while the signaller may still be inside signal(), and waitUntil() returns as
/// soon as the condition is true, which can be before the signal; neither is a reason to destroy
/// the event. Let it outlive its signallers: join() them first, or declare it in front of the
/// KP_ThreadPool that signals, which waits for its workers when it ends. Or make the condition true
/// and signal() under one KP_Mutex that the condition locks as well: whoever finds it true then
/// finds signal() done.
class KP_API KP_Event : public virtual KP_Object {
public:
    /// An event that nobody waits for.
    KP_Event() = default;
    /// A copy is an event of its own that nobody waits for.
    KP_Event(const KP_Event& other) : KP_Object(other) {}
    /// Leaves the target's waiting threads alone.
    KP_Event& operator=(const KP_Event&) { return *this; }
    ~KP_Event() override;

    /// Waits until a signal releases this thread, or @p milliseconds have passed (0 or less: no
    /// limit). @p mutex is neither released nor taken, and may be null; callers let go of their own
    /// locks first. Returns 0 when signalled, -1 on timeout. Changing the system clock does not
    /// change the wait.
    virtual int wait(KP_Mutex* mutex, int milliseconds);
    /// The number of threads that are counted as waiting at this moment.
    virtual int numWaiting();
    /// Releases one waiting thread, if there is one; returns 0.
    /// If the system refuses to wake it, "setEvent -1" goes to standard error and the process ends
    /// with status 1, since a thread would sleep for ever.
    virtual int signal();

    /// Waits until @p condition() is true, however often it is signalled meanwhile, or until
    /// @p milliseconds have passed (0 or less: no limit). Whoever makes the condition true signals
    /// after it, numWaiting() times when several threads may wait.
    ///
    /// The condition is asked again after this thread was counted as waiting, so a signal that
    /// comes between the question and the sleep is not lost, as it would be in front of a plain
    /// wait(). It runs on this thread, without a lock of the event's, and does not throw. All who
    /// wait on one event wait for the same: a signal may release one whose condition is still
    /// false. Returns 0 when it was true, -1 when the time passed without.
    template <class Condition>
    int waitUntil(Condition condition, int milliseconds = 0) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point end = milliseconds > 0
                                          ? Clock::now() + std::chrono::milliseconds(milliseconds)
                                          : Clock::time_point();
        while (!condition()) {
            const std::uint32_t last = announce();
            if (condition()) {
                withdraw();
                return 0;
            }
            int left = 0;
            if (milliseconds > 0) {
                const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
                left = static_cast<int>(rest.count());
                if (left <= 0) {
                    withdraw();
                    return condition() ? 0 : -1;
                }
            }
            if (waitAnnounced(last, left) != 0) {
                return condition() ? 0 : -1;
            }
        }
        return 0;
    }

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF7B; }
    /// A new event, or null when memory runs out.
    static KP_Event* create();

private:
    friend class KP_ReaderWriterMutex;
    friend class KP_Thread;
    friend class KP_ThreadPool;

    // wait() in two steps, for classes that test a condition between being counted and sleeping,
    // so that a signal that comes in between is not lost. A thread that was counted must wait, or
    // take itself out again.
    // announce() returns the number of the last signal, which this thread is too late for.
    std::uint32_t announce();
    int waitAnnounced(std::uint32_t last, int milliseconds);
    void withdraw();

    void ring();
    bool take(std::uint64_t* state, std::uint32_t last);
    bool leave(std::uint64_t* state);

    // From the low end: 16 bits of signals given and not yet taken, 16 bits of waiting threads, at
    // least as many, and the number of the last signal.
    std::atomic<std::uint64_t> state_{0};
    std::atomic<std::uint32_t> bell_{0};  // Changes with every signal; waiting threads sleep on it.
};
