// Threads and pools as hosts derive from them and copy them, and what a hard stop cannot do.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>

#include "kp/threads/thread_pool.h"
#include "threads/until.h"

namespace {

using kp::test::until;
using Count = std::atomic<int>;

void count(void* calls) {
    ++*static_cast<Count*>(calls);
}

// Counts its signals and its objects.
class Signalled : public KP_Thread {
public:
    using KP_Thread::KP_Thread;
    Signalled() { ++alive; }
    Signalled(const Signalled& other)
        : KP_Object(other),
          KP_Runnable(other),
          KP_ReferenceCounter(other),
          KP_Mutex(other),
          KP_Thread(other) {
        ++alive;
    }
    ~Signalled() override { --alive; }
    Signalled& operator=(const Signalled& other) {
        KP_Thread::operator=(other);
        return *this;
    }
    int joinSignal() override {
        ++signals;
        return KP_Thread::joinSignal();
    }
    std::int32_t references() const { return references_; }
    using KP_Thread::sleep;
    Count signals{0};
    static inline Count alive{0};
};

TEST(HostThreadTest, ACopyHasTheCountAndTheFlagOfItsSource) {
    auto* thread = new Signalled;
    thread->addRef();
    thread->addRef();
    thread->setContinue(0);
    auto* copy = new Signalled(*thread);
    Signalled assigned;
    assigned = *thread;
    EXPECT_EQ(copy->references(), 3);
    EXPECT_EQ(assigned.references(), 3);
    EXPECT_EQ(copy->isRunning() + assigned.isRunning(), 0);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Signalled::alive, 3);
        copy->release();
        thread->release();
    }
    EXPECT_EQ(Signalled::alive, 1);
    KP_Thread running;
    running.start(count, &assigned.signals);
    running = assigned;  // Its loop keeps its references, and gets the flag: it ends.
    running.join(nullptr, 0);
}

TEST(HostThreadTest, AnOverriddenJoinSignalIsCalledAtTheEndAndForNewTasks) {
    Signalled thread;
    thread.start();
    thread.setContinue(0);
    thread.join(nullptr, 0);
    EXPECT_GE(thread.signals, 1);
    thread.stop();

    class Pool : public KP_ThreadPool {
    public:
        Pool() : KP_ThreadPool(0) { addThread(); }
        ~Pool() override { reset(); }
        int addThread() override {
            auto* worker = new Signalled;
            worker->setFunction(asyncCallback);
            worker->setArg(worker);
            worker->setArg2(this);
            return append(worker);
        }
    } pool;
    Count calls{0};
    auto* worker = static_cast<Signalled*>(pool.first());
    pool.addTask(count, &calls, 1);
    EXPECT_EQ(worker->signals, 0);
    pool.start();
    ASSERT_TRUE(until([&] { return calls == 1; }));
    pool.addTask(count, &calls, 1);
    EXPECT_TRUE(until([&] { return calls == 2; }));
    EXPECT_EQ(worker->signals, 1);
}

TEST(HostThreadTest, ASleepOfNothingWaitsForASignal) {
    Signalled thread;
    std::atomic<bool> isOver{false};
    kp::test::together(2, [&](int i) {
        if (i == 0) {
            thread.sleep(0);
            isOver = true;
        } else {
            KP_Event().wait(nullptr, 20);
            EXPECT_FALSE(isOver);
            EXPECT_TRUE(until([&] { return thread.joinSignal() == 0 && isOver; }));
        }
    });
}

TEST(HardStopTest, EndsWorkThatJoinsOthers) {
    static KP_ThreadList* others;
    static Count inside;
    others = KP_ThreadList::create();
    others->append(new KP_Thread([](void* open) {
        until([open] { return static_cast<std::atomic<bool>*>(open)->load(); });
    }));
    std::atomic<bool> open{false};
    others->first()->setArg(&open);
    others->start();
    void (*const works[])(void*) = {[](void*) {
                                        ++inside;
                                        others->join(nullptr, 0);
                                        ADD_FAILURE();
                                    },
                                    [](void*) {
                                        ++inside;
                                        others->first()->join(nullptr, 0);
                                        ADD_FAILURE();
                                    }};
    for (void (*const work)(void*) : works) {
        inside = 0;
        KP_Thread first(work);
        KP_Thread second(work);  // Waits for the first to have joined, where the list is joined.
        for (KP_Thread* each : {&first, &second}) {
            each->setHardStop(1);
            each->start();
        }
        ASSERT_TRUE(until([] { return inside == 2; }));
        Count calls{0};
        for (KP_Thread* each : {&second, &first}) {
            each->stop();
            EXPECT_EQ(each->start(count, &calls), 0) << "the loop has ended";
        }
        EXPECT_TRUE(until([&] { return calls > 10; }));
    }
    open = true;
    others->stop();
    others->join(nullptr, 0);
    others->release();
}

TEST(HardStopTest, CannotEndWorkThatBlocksAllSignalsAndDoesNotStartItASecondTime) {
    static std::atomic<bool> open;
    static Count inside;
    open = false;
    inside = 0;
    KP_Thread thread([](void*) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        ++inside;
        until([] { return open.load(); });
    });
    thread.setHardStop(1);
    thread.start();
    ASSERT_TRUE(until([] { return inside == 1; }));
    thread.stop();
    EXPECT_EQ(thread.start(), -1);
    EXPECT_EQ(inside, 1);
    open = true;
    EXPECT_TRUE(until([&] { return thread.start() == 0; }));
    EXPECT_TRUE(until([] { return inside > 1; }));
    thread.setHardStop(0);
    thread.stop();
    thread.join(nullptr, 0);
}

TEST(ThreadListCopyTest, HoldsTheSameThreadsAndLeavesThemAlone) {
    Count calls{0};
    auto* source = KP_ThreadList::create();
    source->append(new KP_Thread(count, &calls));
    source->start();
    {
        KP_ThreadList copy(*source);
        KP_ThreadList assigned;
        assigned.append(new KP_Thread(count, &calls));
        assigned = copy;
        EXPECT_EQ(assigned.first(), source->first());
        EXPECT_EQ(copy.isRunning(), 0);
        EXPECT_EQ(copy.start(), 0);
    }
    const int seen = calls;
    EXPECT_TRUE(until([&] { return calls > seen + 10; }));
    KP_ThreadList last(*source);
    source->stop();
    source->join(nullptr, 0);
    source->release();
    EXPECT_EQ(last.first()->join(nullptr, 0), 0);
}

TEST(PoolCopyTest, HasWorkersAndAQueueOfItsOwn) {
    Count calls{0};
    KP_ThreadPool pool(0);
    pool.addThread();
    pool.addThread();
    pool.setAutoStart(1);
    KP_ThreadPool copy(pool);
    copy.setAutoStart(0);
    pool.addTask(count, &calls, 1);
    EXPECT_TRUE(until([&] { return calls == 1; }));
    EXPECT_EQ(copy.getCount(), 2);
    EXPECT_EQ(copy.isRunning(), 0);
    copy.addTask(count, &calls, 1);
    copy = pool;  // Releases what it had queued, and takes over the switch.
    EXPECT_EQ(copy.isRunning(), 0);
    copy.addTask(count, &calls, 2);
    EXPECT_TRUE(until([&] { return calls == 2; }));
    EXPECT_NE(copy.first(), pool.first());
}

TEST(ThreadListCopyTest, CanBeAssignedWhileItRunsAndBackToItsSource) {
    Count calls{0};
    KP_ThreadList source;
    source.append(new KP_Thread(count, &calls));
    KP_ThreadList copy(source);
    copy.start();
    source = copy;  // The same thread: it keeps its work.
    copy = source;
    EXPECT_EQ(copy.isRunning() + source.isRunning(), 0);
    copy.start();
    const int seen = calls;
    EXPECT_TRUE(until([&] { return calls > seen + 10; }));
    copy.stop();
    copy.join(nullptr, 0);
}

TEST(PoolCopyTest, OfADerivedClassHasWorkersOfItsOwnToo) {
    struct Pool : KP_ThreadPool {
        Pool() : KP_ThreadPool(2) {}
        Pool(const Pool&) = default;
        Pool& operator=(const Pool&) = default;
        ~Pool() override { reset(); }
    } pool;
    pool.start();
    Pool copy(pool);
    EXPECT_EQ(copy.getCount(), 2);
    EXPECT_NE(copy.first(), pool.first());
    copy = pool;
    EXPECT_NE(copy.first(), pool.first());
    const KP_ThreadList list(pool);
    EXPECT_EQ(const_cast<KP_ThreadList&>(list).getCount(), 0);
}

TEST(PoolHardStopTest, EndsAnIdleWorkerAndLosesNoTask) {
    for (int round = 0; round < 200; ++round) {
        Count calls{0};
        KP_ThreadPool pool(1);
        KP_Thread* const worker = pool.first();
        worker->setHardStop(1);
        pool.start();
        kp::test::together(2, [&](int i) {
            if (i == 0) {
                worker->stop();
            } else {
                pool.addTask(count, &calls, 1);
            }
        });
        pool.restart();
        ASSERT_TRUE(until([&] { return calls == 1; })) << round;
    }
    KP_ThreadPool pool(1);  // Its worker was started by itself.
    pool.first()->start();
}

TEST(PoolArgumentTest, IsEndedOnceWhetherTheTaskRanOrNot) {
    Count ended{0};
    struct Argument {
        Count* ended;
    };
    const auto end = [](void* argument) {
        ++*static_cast<Argument*>(argument)->ended;
        delete static_cast<Argument*>(argument);
    };
    {
        KP_ThreadPool pool(1);
        const auto work = [](void* argument) {
            EXPECT_EQ(*static_cast<Argument*>(argument)->ended, 1);
        };
        pool.addTask(nullptr, new Argument{&ended}, 7, end);
        pool.removeTasksByID(7);
        EXPECT_EQ(ended, 1);
        pool.addTask(work, new Argument{&ended}, 8, end);
        EXPECT_TRUE(until([&] { return ended == 2; }));
        pool.stop();
        pool.join(nullptr, 0);
        pool.addTask(work, new Argument{&ended}, 9, end);
    }
    EXPECT_EQ(ended, 3);
    KP_Task task(nullptr, new Argument{&ended});
    task.setRelease(end);
    const KP_Task copy(task);
    EXPECT_EQ(ended, 3);
}

TEST(PoolRemovalTest, StopsJoinsAndStartsThroughWhatAHostOverrides) {
    class Pool : public KP_ThreadPool {
    public:
        Pool() : KP_ThreadPool(2) {}
        ~Pool() override { reset(); }
        int stop() override { return story += 's', KP_ThreadPool::stop(); }
        int join(KP_Mutex* mutex, int milliseconds) override {
            return story += 'j', KP_ThreadPool::join(mutex, milliseconds);
        }
        int start() override { return story += 'r', KP_ThreadPool::start(); }
        std::string story;
    } pool;
    pool.removeTasksByID(1);
    EXPECT_EQ(pool.story, "r");
    pool.removeTasksByID(1);
    EXPECT_EQ(pool.story, "rsjr");
    EXPECT_EQ(pool.isRunning(), 1);
}

}  // namespace
