// libkp: threads that are started, stopped and waited for as one.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kp/text/list.h"
#include "kp/threads/mutex.h"
#include "kp/threads/runnable.h"
#include "kp/threads/thread.h"

extern template class KP_API KP_Link<KP_Thread>;
extern template class KP_API KP_List<KP_Thread>;

/// A list of threads that owns them: a thread that is removed, or left over, is released.
///
/// A thread that is added while the list runs is not started by the list; start it, or restart()
/// all.
///
/// Destroying the list takes the work away from its threads and tells them to end; it does not
/// wait. Their objects live until their loops have ended. join() first when their work uses
/// something that is about to end.
///
/// Threads: every operation may be called from any thread, one of the list's own included: such a
/// thread is not waited for, and a start() that it asks for while somebody joins the list happens
/// when that has ended. Order of locks: the list's, then a thread's.
class KP_API KP_ThreadList : public KP_List<KP_Thread>, public virtual KP_Runnable {
public:
    /// An empty list that does not run.
    KP_ThreadList();
    /// A copy holds the same threads, each with a reference of its own, and does not run: its
    /// start() leaves threads alone that run already. Its end leaves all its threads and their work
    /// alone, also those that were added to it; whoever wants a copy to end them calls stop(). A
    /// list that is copied from a pool is empty: workers belong to their pool.
    KP_ThreadList(const KP_ThreadList& other);
    /// The target first ends its threads as its destructor would, but for those that @p other holds
    /// too, and does not run then.
    KP_ThreadList& operator=(const KP_ThreadList& other);
    ~KP_ThreadList() override;

    /// stop() and start(); returns 0. Does not wait in between: a thread that has not ended yet
    /// goes on.
    virtual int restart();

    /// Starts every thread, unless the list runs already; returns 0. A thread that cannot be
    /// started ends the process with "KP_ThreadList::start: Error starting a thread" in the log.
    int start() override;
    /// Tells every thread to end, if the list runs, by its stop(), which waits only with hard stop.
    /// Returns 0. A host's stop() that fails ends the process, as a failed start() does.
    int stop() override;
    /// Waits for the end of every thread, whether or not the list runs; stop() tells them to end,
    /// this does not. The arguments are not used: pass nullptr and 0. Returns 0. Where a thread's
    /// join() says -1, as of one that it ends by force, the log gets a line, and the next thread is
    /// waited for. Called from work that is to be ended by force, it stops waiting.
    int join(KP_Mutex* mutex, int milliseconds) override;
    /// 1 when the list was started and not stopped since, else 0.
    int isRunning() override;

    /// As KP_Mutex's. A thread that holds the list's lock is not ended by force until it lets go.
    void lock() override;
    void unlock() override;
    bool try_lock();

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BFB6; }
    /// A new list on which init() has run, or null when memory runs out.
    static KP_ThreadList* create();

protected:
    /// Whether the caller runs on one of the list's threads.
    bool isOwnThread();

private:
    friend class KP_ThreadPool;

    KP_Thread* referenceTo(int position);
    static void takeWork(KP_Thread* thread);
    int endThreads(KP_ThreadList* others);
    bool lockLifecycle();
    void unlockLifecycle();
    bool lockToStop();
    bool clearRunning();
    // begin makes the list one that does not run, and says whether it did run.
    int stopThreads(const std::function<bool()>& begin);

    bool isCopy_ = false;             // Others may need the threads when this list ends.
    bool isPool_ = false;             // The threads cannot be another list's.
    std::int32_t held_ = 0;           // How often the list is locked; guarded by its lock, as is
    bool abandonableBefore_ = false;  // whether its holder could be ended by force before.
    std::atomic<std::int32_t> running_{0};
    std::atomic<std::int32_t> barred_{
        0};  // Above 0, nobody starts the threads; read under changing_.
    std::atomic<bool> startWanted_{false};
    KP_Mutex lifecycle_;  // One start or join at a time.
    KP_Mutex changing_;   // One start or stop at a time; never held while waiting for a thread.
};
