// libkp: a worker thread that repeats one unit of work until it is told to stop.
#pragma once

#include <atomic>
#include <cstdint>

#include "kp/core/reference_counter.h"
#include "kp/threads/event.h"
#include "kp/threads/mutex.h"
#include "kp/threads/runnable.h"

/// Repeats an iteration: sleep if an interval is set, do the work, yield.
///
/// The work is a function with a pointer, or an overridden doTask(). The loop looks at the continue
/// flag between iterations, so a stop ends it after the current one; the sleep comes before the
/// work, so a stop that cuts a sleep short is followed by one more doTask().
///
/// A function that throws, and a doTask() that returns non-zero, has had an error: the debug log
/// says so and the loop goes on. A function must return: pthread_exit() in it ends the process.
///
/// Hard stop: with setHardStop(1), stop() and join() end a loop by force if its work does not
/// return, whether it computes or blocks in the system. The work is left where it is: no destructor
/// runs, locks stay locked and memory stays taken, so it is a last resort. Only the work itself is
/// broken off, never the thread's own sleeping and waiting; work that waits in the join() of a
/// thread or a list ends within a second. The process lives on, and the object can be started again
/// or released. It uses the real-time signal SIGRTMIN + 7, whose handler is installed when a thread
/// is first stopped by force. Work that blocks all signals cannot be broken off by the system, and
/// neither can a host's own run(), which is no work: the loop lives until it returns, and the
/// object cannot be started again before.
///
/// Lifetime: objects are reference-counted. A running loop holds a reference, so the owner may
/// release the object at any time after start(); it is destroyed when the loop has ended. A thread
/// that is destroyed otherwise (as a variable or a member) stops its loop and waits for its end; a
/// derived class that overrides doTask() calls stop() and join() in its own destructor.
///
/// Threads: every operation may be called from any thread; the setters take effect with the next
/// iteration.
class KP_API KP_Thread : public virtual KP_Runnable,
                         public virtual KP_ReferenceCounter,
                         public virtual KP_Mutex {
public:
    /// A thread that is not started. @p function may be null, and gets @p arg, which stays the
    /// caller's.
    KP_Thread(void (*function)(void*) = nullptr, void* arg = nullptr);
    /// A copy has the settings of its source, the continue flag and the number of iterations among
    /// them, and as many references (KP_ReferenceCounter): those of a running source include two of
    /// its loop. It is not running.
    KP_Thread(const KP_Thread& other);
    /// Takes over the same, and a loop that runs goes on with it; but the references only when none
    /// runs, since a loop holds some of them.
    KP_Thread& operator=(const KP_Thread& other);
    ~KP_Thread() override;

    /// The loop; returns 0 when it has ended. start() has it called on the new thread.
    virtual int run();
    /// One iteration's work: calls the function, if there is one, and returns 0.
    virtual int doTask();
    /// Stores those of the two that are not null, and returns what start() does.
    /// A class that overrides start() without arguments keeps this one by `using KP_Thread::start`.
    virtual int start(void (*function)(void*), void* arg);
    /// Signals the thread's event: ends a sleep, or wakes one joiner, which looks whether the loop
    /// has ended. Returns 0. Called by stop(), by the loop when it ends (more than once when
    /// several threads join it), and by a pool for its current worker when a task is added.
    virtual int joinSignal();
    /// Replaces what the next iteration calls, or what it hands over; returns 0.
    virtual int setFunction(void (*function)(void*));
    virtual int setArg(void* arg);
    /// A second pointer, kept for the host; setting it returns 0.
    virtual int setArg2(void* arg2);
    virtual void* getArg2();
    /// Seconds to sleep before each iteration, 2147483 at most; 0 or less: none. Returns 0, as the
    /// two setters below.
    virtual int setSleepInterval(int seconds);
    /// Non-zero: stop() and join() may end the loop by force.
    virtual int setHardStop(int on);
    /// Non-zero: go on; 0: end after the current iteration. Unlike stop() it does not end a sleep.
    virtual int setContinue(int on);

    /// Starts the loop on a new thread; a loop that runs already is left alone, and one that was
    /// told to end and has not ended yet goes on, as a restart wants it. Waits for one that is just
    /// ending, 5 seconds at most. Returns 0; -1 when the system refuses a thread, when memory runs
    /// out, and while a loop lives that could not be ended by force.
    int start() override;
    /// Tells the loop to end, and ends its sleep; does not wait for it. With hard stop, ends it by
    /// force and waits until its work has been left (5 seconds at most). Returns 0.
    int stop() override;
    /// Waits until the loop has ended; wakes it if it sleeps, but leaves it to stop() to tell it to
    /// end. With hard stop, ends it by force after a second. The arguments are not used: pass
    /// nullptr and 0. Returns 0; -1 when the last second of waiting passed without a signal, as
    /// before an end by force, and the loop has ended then, too; -1 at once when the thread would
    /// wait for itself. Not to be called with the thread's own lock held, which its loop needs to
    /// end. Called from work that is to be ended by force, it stops waiting, and the work ends
    /// there.
    int join(KP_Mutex* mutex, int milliseconds) override;
    /// The continue flag, read without the thread's lock, which a loop that is ended by force while
    /// it asks could leave locked: whether the thread is meant to run, not whether it does. It is 1
    /// in a new thread, and stop() leaves it alone when there is no loop.
    int isRunning() override;

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BFA4; }
    /// What a new thread runs: calls run() of the KP_Thread that @p thread points to.
    static void asyncCallback(void* thread);

protected:
    /// Sleeps for so many seconds, or until a signal, and without a limit for 0 or less; not at all
    /// when the thread is to end. Returns 0. The loop calls it, when an interval is set.
    virtual int sleep(int seconds);

private:
    friend class KP_ThreadList;
    friend class KP_ThreadPool;
    struct Loop;

    static void enter(void* loop);
    void copySettings(const KP_Thread& other);
    void setPair(void (*function)(void*), void* arg);
    void getPair(void (**function)(void*), void** arg) const;
    bool goesOn();
    int work();
    void leaveLoop();
    void signalJoiners();
    bool isLoopOf(const Loop* loop);
    void endByForce();
    void endTask();
    bool isOwnLoop();
    void waitForLoop();
    Loop* currentLoop();

    std::atomic<void (*)(void*)> function_;
    std::atomic<void*> arg_;
    std::atomic<std::uint32_t> pairing_{0};  // Odd while both of the above are exchanged.
    std::atomic<void*> arg2_{nullptr};
    std::atomic<std::int32_t> iterationLimit_{0};
    std::atomic<std::int32_t> iterationCount_{0};
    std::atomic<std::int32_t> sleepInterval_{0};
    std::atomic<std::int32_t> continue_{1};
    std::atomic<std::int32_t> hardStop_{0};
    std::atomic<std::int32_t> sleeping_{0};

    // Of a pool's worker: it does not yield, since it sleeps when there is nothing to do, and knows
    // which task it runs.
    static constexpr std::int64_t kNoTask = INT64_MIN;
    bool yields_ = true;
    std::atomic<std::int64_t> task_{kNoTask};
    KP_Object* taskObject_ = nullptr;  // Owned: if the task is broken off, it ends here.
    std::atomic<bool> handle_{false};  // Whether a loop of start() runs and was not ended by force.
    std::atomic<Loop*> loop_{nullptr};
    kp::detail::RecursiveLock loopLock_;  // Guards loop_ while somebody takes a share of it.
    KP_Event event_;
};
