// libkp: a thread that resets registered objects at every local midnight.
#pragma once

#include <atomic>
#include <ctime>

#include "kp/text/list.h"
#include "kp/threads/thread.h"

/// Calls reset() of the objects in its list when a local day begins, in the order of the list.
///
/// The objects belong to the host, which keeps them alive while they are listed and changes the
/// list only while no cycle walks it: before start(), or after stop() and join(). What their
/// reset() answers is ignored; it runs on this thread.
///
/// The way to midnight is computed once a day as if the day had 24 hours, from the clock on the
/// wall. On a day of 23 hours the reset comes an hour late, at 01:00 of the next day; on a day of
/// 25 hours an hour early, at 23:00, and once more an hour later at midnight: the cycle that begins
/// at 23:00 is one hour long. When somebody sets the clock forward, one reset comes late by as
/// much; when it is set back, one comes early, and another at midnight. So a reset() asks the
/// calendar which day it is, and bears to be called twice.
///
/// Threads: as KP_Thread. A stop() while it sleeps ends the cycle without a reset; a join() without
/// a stop() before it wakes the thread as any signal does, and that is taken for midnight.
class KP_API KP_ResetThread : public virtual KP_List<KP_Object>, public virtual KP_Thread {
public:
    /// An empty list, and a thread that is not started.
    KP_ResetThread();
    /// A copy would reset the same archives a second time.
    KP_ResetThread(const KP_ResetThread&) = delete;
    KP_ResetThread& operator=(const KP_ResetThread&) = delete;
    /// Stops the thread and waits for it; touches no object of the list.
    ~KP_ResetThread() override;

    /// As KP_Thread's; a cycle that sleeps ends without a reset, also when the thread is started
    /// again before it has noticed.
    int stop() override;
    /// One day: sleeps until midnight, and resets the objects unless it was told to stop. The debug
    /// log gets a line before and after, with the time at which the sleep began. Returns 0.
    int doTask() override;
    /// Seconds from @p local to the next midnight, 1 to 86400: at midnight itself a whole day.
    static int secondsToMidnight(const std::tm& local);

    char* getClassName() override;
    int queryInterface(unsigned long id, void** out) override;
    static unsigned long getClassID() { return 0x2BE2BF84; }
    /// A new thread on which init() has run, or null when memory runs out.
    static KP_ResetThread* create();

private:
    std::atomic<unsigned> stops_{0};
};
