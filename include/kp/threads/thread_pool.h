// libkp: worker threads that take tasks from one queue.
#pragma once

#include <atomic>
#include <cstdint>

#include "kp/threads/event.h"
#include "kp/threads/recursive_lock.h"
#include "kp/threads/task.h"
#include "kp/threads/thread_list.h"

/// Runs queued tasks, first in first out, on a fixed set of workers.
///
/// A task runs exactly once, on one worker; it leaves the queue before it runs and is released
/// after. The order in which tasks end is theirs. A burst of tasks wakes one worker after another,
/// each by the one before it and never all of them at once: waking is what a small task costs most.
///
/// Auto-start: adding a task starts a pool that does not run. Auto-stop: a pool stops itself when a
/// worker has waited 100 milliseconds for a task and none is queued or running; stop() is not
/// called. With both, no task is left behind between the two.
///
/// To wait for all tasks, set auto-stop, start(), and join(nullptr, 0), which takes 100
/// milliseconds more than the tasks; or let them count themselves, and wait for the last one with
/// KP_Event::waitUntil(). Without auto-stop join() waits until somebody calls stop(), and what is
/// queued then stays for the next start().
///
/// A task that throws has failed: the log, if it is open, gets a line with its identifier, and its
/// worker goes on. A hard stop of a worker can break off a task, never the pool's own code; the
/// task does not run again.
///
/// Workers of a host's own class are added by an override of addThread(), which gives them
/// asyncCallback(), themselves as argument and the pool as second argument. The one that last began
/// an iteration gets a joinSignal() with every task that is added while the pool runs.
///
/// Destroying the pool stops it and waits for its workers, also when it was stopped before; tasks
/// that have not begun are released without having run. A class that overrides what workers call
/// (doTask(), stop()) calls reset() in its own destructor. No task may destroy its own pool, and
/// workers are removed from it, as from any list, only when it was stopped and joined.
///
/// Threads: every operation may be called from any thread, and from a task.
class KP_API KP_ThreadPool : public virtual KP_ThreadList {
public:
    /// A stopped pool with so many workers; none for a number below 1, and fewer when memory runs
    /// out.
    explicit KP_ThreadPool(int threads);
    /// A copy is a stopped pool of as many workers of its own, with the same switches and an empty
    /// queue; fewer workers when memory runs out.
    KP_ThreadPool(const KP_ThreadPool& other);
    /// The target becomes such a copy after its reset(), and stays as it is where that is refused.
    KP_ThreadPool& operator=(const KP_ThreadPool& other);
    ~KP_ThreadPool() override;

    /// Queues a new task, which calls @p function with @p arg, and wakes a worker; on a stopped
    /// pool, starts it if auto-start is set, else the task waits. @p arg stays the caller's. @p id
    /// is any number, for removeTasksByID(); several tasks may have the same. Returns 0; -1 when
    /// createTask() of a derived class gave none.
    virtual int addTask(void (*function)(void*), void* arg, int id);
    /// The same, and @p end ends the argument when the task is released, run or withdrawn, on any
    /// thread (KP_Task::setRelease()); also at once when there is no task, so that nothing leaks.
    /// Does not call the operation above: a class that wants to see all tasks overrides
    /// createTask(), and one that overrides addTask() keeps this one by `using
    /// KP_ThreadPool::addTask`.
    int addTask(void (*function)(void*), void* arg, int id, void (*end)(void*));
    /// A new task, which is in no queue. When memory runs out, "malloc" and the system's reason go
    /// to standard error, and the process ends with "out of memory" in the log.
    virtual KP_Task* createTask(void (*function)(void*), void* arg, int id);
    /// Adds a worker, which is not started here (restart() does that in a running pool); returns 0,
    /// or -1 when memory runs out.
    virtual int addThread();
    /// One iteration of @p worker: waits for a task and runs it; returns 0.
    virtual int doTask(KP_Thread* worker);
    /// Releases all queued tasks with the identifier @p id and leaves the pool running, also if it
    /// was stopped; the others keep their order. When it returns no such task runs any more. A pool
    /// that runs is stopped and joined for it, by stop(), join() and start() of derived classes, so
    /// this waits for the tasks of other identifiers as well, and a hard stop breaks those off.
    /// Called from a task of this pool, which cannot wait for itself, it withdraws what is queued
    /// and stops nothing. Returns 0.
    virtual int removeTasksByID(int id);
    /// Non-zero: on; 0: off, as in a new pool. Returns 0.
    virtual int setAutoStop(int on);
    virtual int setAutoStart(int on);

    /// Makes as many workers as the constructor did if there are none; returns 0.
    int init() override;
    /// Stops the pool if it runs and waits for its workers, then releases all queued tasks and all
    /// workers; returns 0. init() makes new ones. A task cannot wait for its own worker: called
    /// from one, changes nothing and returns -1.
    int reset() override;
    /// Tells the workers to end, each after the task that it runs, as KP_ThreadList::stop() does;
    /// queued tasks stay. Returns 0.
    int stop() override;

    /// The work of a worker: calls doTask() of the pool that the thread @p worker belongs to.
    static void asyncCallback(void* worker);
    /// A new pool of one worker, or null when memory runs out.
    static KP_ThreadPool* create();

private:
    using Lock = kp::detail::RecursiveLock;

    // Tasks in the order in which they came, with the lock that guards them.
    struct Chain {
        void append(KP_Task* task);
        void takeAll(Chain* from);
        void removeByID(int id, Chain* removed);
        void releaseAll();

        Lock lock;
        KP_Task* first = nullptr;
        KP_Task* last = nullptr;
    };

    int queue(KP_Task* task);
    bool fetch();
    KP_Task* take(KP_Thread* worker);
    void putBack(KP_Thread* worker, KP_Task* task);
    bool isMember(const KP_Thread* worker);
    bool waitForTask();
    bool endIdleRun();
    bool endRun();
    void wakeWorker();
    void wakeAllWorkers();
    bool runsTask(int id);

    std::int32_t threads_;
    std::atomic<std::int32_t> autoStop_{0};
    std::atomic<std::int32_t> autoStart_{0};
    KP_Event taskEnded_;
    KP_Event work_;  // Workers without a task wait here.
    std::atomic<bool> waking_{false};
    std::atomic<bool> looking_{false};  // One worker looks for a task a little before it sleeps.
    // Workers take from the one chain and, when it is empty, all of the other at once, so that
    // those who add and those who take rarely meet. Who needs both locks takes that of out_ first.
    Chain out_;
    [[maybe_unused]] char apart_[64] =
        {};  // Those who add write to other cache lines than those who take.
    Chain in_;
    std::atomic<std::uint32_t> added_{0};  // Changed under the lock of in_.
    // The worker that last began an iteration, if it is of a host's class and may want to know of
    // new tasks; guarded by the lock of in_.
    KP_Thread* currentWorker_ = nullptr;
};
