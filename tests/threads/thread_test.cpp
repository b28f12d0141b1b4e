#include "kp/threads/thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "kp/core/calc_hash.h"
#include "kp/threads/thread_list.h"
#include "support/installation.h"
#include "threads/until.h"

namespace {

using kp::test::together;
using kp::test::until;

using Count = std::atomic<int>;

void count(void* calls) {
    ++*static_cast<Count*>(calls);
}

void end(KP_Thread& thread) {
    thread.stop();
    thread.join(nullptr, 0);
}

// A thread whose objects are counted. Its argument is the thread itself.
class Counted : public KP_Thread {
public:
    explicit Counted(void (*function)(void*)) : KP_Thread(function, this) { ++alive; }
    ~Counted() override { --alive; }
    static inline Count alive{0};
    Count calls{0};
};

void workOnce(void* thread) {
    static_cast<KP_Thread*>(thread)->setContinue(0);
}

TEST(ThreadTest, RepeatsItsFunctionUntilItIsStoppedAndStartsAgain) {
    Count calls{0};
    Count others{0};
    KP_Thread thread;
    EXPECT_EQ(thread.join(nullptr, 0), 0);
    EXPECT_EQ(thread.start(count, &calls), 0);
    EXPECT_TRUE(until([&] { return calls > 100; }));
    EXPECT_EQ(thread.isRunning(), 1);
    EXPECT_EQ(KP_Thread(thread).join(nullptr, 0), 0) << "a copy does not run";
    end(thread);
    const int seen = calls;
    EXPECT_EQ(thread.isRunning(), 0);
    EXPECT_EQ(thread.start(nullptr, &others), 0);
    EXPECT_TRUE(until([&] { return others > 10; }));
    end(thread);
    EXPECT_EQ(calls, seen);
    EXPECT_EQ(thread.join(nullptr, 0), 0);
}

TEST(ThreadTest, HasOneLoopHoweverItIsStartedAndStopped) {
    struct State {
        Count inside{0};
        Count calls{0};
    } state;
    const auto work = [](void* arg) {
        auto* each = static_cast<State*>(arg);
        EXPECT_EQ(each->inside++, 0);
        ++each->calls;
        --each->inside;
    };
    KP_Thread thread(work, &state);
    together(3, [&](int) {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(thread.stop(), 0);
            EXPECT_EQ(thread.start(), 0);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        thread.stop();
        thread.start();
        thread.start();
        const int seen = state.calls;
        ASSERT_TRUE(until([&] { return state.calls > seen; })) << i;
    }
    end(thread);
}

// Counts in overridden operations, with a base beside KP_Thread.
class Host : public virtual KP_CalcHash, public virtual KP_Thread {
public:
    ~Host() override { end(*this); }
    char* getClassName() override { return KP_Thread::getClassName(); }
    int queryInterface(unsigned long id, void** out) override {
        return KP_Thread::queryInterface(id, out);
    }
    int run() override { return returnsAtOnce ? 1 : KP_Thread::run(); }
    int doTask() override {
        ++tasks;
        return 0;
    }
    int sleep(int seconds) override {
        ++sleeps;
        return KP_Thread::sleep(seconds);
    }
    std::atomic<bool> returnsAtOnce{false};
    Count tasks{0};
    Count sleeps{0};
};

TEST(ThreadTest, RunsWhatADerivedClassOverrides) {
    Host host;
    KP_Runnable* const runnable = &host;
    EXPECT_EQ(runnable->start(), 0);
    EXPECT_TRUE(until([&] { return host.tasks > 3; }));
    end(host);
    void* view = nullptr;
    EXPECT_EQ(host.queryInterface(KP_Thread::getClassID(), &view), 0);
    EXPECT_EQ(view, static_cast<KP_Thread*>(&host));
    host.returnsAtOnce = true;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(host.start(), 0);
        host.join(nullptr, 0);
    }
    host.returnsAtOnce = false;
    const int seen = host.tasks;
    EXPECT_EQ(host.start(), 0);
    EXPECT_TRUE(until([&] { return host.tasks > seen; }));
}

TEST(ThreadTest, SleepsBeforeItWorksAndAStopCutsTheSleepShort) {
    for (int round = 0; round < 40; ++round) {
        Host host;
        host.setSleepInterval(3600);
        host.start();
        if (round % 2 == 0) {
            EXPECT_TRUE(until([&] { return host.sleeps == 1; }));
            end(host);
            EXPECT_EQ(host.tasks, 1);
        } else {
            together(2, [&](int i) { i == 0 ? host.stop() : host.join(nullptr, 0); });
            EXPECT_EQ(host.tasks, host.sleeps);
        }
    }
    Host host;
    host.setSleepInterval(1);
    const auto before = std::chrono::steady_clock::now();
    host.start();
    EXPECT_TRUE(until([&] { return host.tasks == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
}

TEST(ThreadTest, LivesUntilItsLoopHasEndedThoughItsOwnerLetGo) {
    for (int i = 0; i < 10000; ++i) {
        auto* thread = new Counted(workOnce);
        ASSERT_EQ(thread->start(), 0);
        if (i % 2 == 0) {
            thread->stop();
        }
        thread->release();
        ASSERT_TRUE(until([] { return Counted::alive < 50; }));
    }
    EXPECT_TRUE(until([] { return Counted::alive == 0; }));

    static std::atomic<bool> open{false};
    open = false;
    auto* thread = new Counted([](void* self) {
        EXPECT_EQ(static_cast<KP_Thread*>(self)->join(nullptr, 0), -1) << "it would never end";
        EXPECT_TRUE(until([] { return open.load(); }));
        workOnce(self);
    });
    thread->start();
    thread->release();
    EXPECT_EQ(Counted::alive, 1);
    open = true;
    EXPECT_TRUE(until([] { return Counted::alive == 0; }));
}

// What a thread may hang in.
struct Trap {
    Count entered{0};
    int pipe[2] = {-1, -1};
    KP_Event event;
    KP_Thread* thread = nullptr;

    Trap() { EXPECT_EQ(::pipe(pipe), 0); }
    ~Trap() {
        ::close(pipe[0]);
        ::close(pipe[1]);
    }
};

void (*const kTraps[])(void*) = {[](void* trap) {
                                     for (;;) {
                                         count(&static_cast<Trap*>(trap)->entered);
                                     }
                                 },
                                 [](void* trap) {
                                     char byte = 0;
                                     count(&static_cast<Trap*>(trap)->entered);
                                     EXPECT_EQ(::read(static_cast<Trap*>(trap)->pipe[0], &byte, 1),
                                               1);
                                 },
                                 [](void* trap) {
                                     count(&static_cast<Trap*>(trap)->entered);
                                     static_cast<Trap*>(trap)->event.wait(nullptr, 0);
                                 },
                                 [](void* trap) {
                                     count(&static_cast<Trap*>(trap)->entered);
                                     while (static_cast<Trap*>(trap)->thread->isRunning() != 2) {
                                     }
                                 },
                                 [](void* trap) {
                                     static_cast<Trap*>(trap)->thread->stop();
                                     ADD_FAILURE() << "came back";
                                 }};

void expectHardStop(void (*work)(void*), bool byStop) {
    Trap trap;
    Count calls{0};
    auto* thread = new KP_Thread(work, &trap);
    trap.thread = thread;
    thread->setHardStop(1);
    thread->start();
    if (byStop) {
        EXPECT_TRUE(until([&] { return trap.entered > 0; }));
        thread->stop();
    }
    thread->join(nullptr, 0);
    EXPECT_EQ(thread->join(nullptr, 0), 0);
    thread->setHardStop(0);
    EXPECT_EQ(thread->start(count, &calls), 0);
    EXPECT_TRUE(until([&] { return calls > 10; }));
    end(*thread);
    thread->release();
}

TEST(ThreadTest, AHardStopEndsWhatDoesNotEndByItself) {
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 4; ++i) {
            SCOPED_TRACE(i);
            expectHardStop(kTraps[i], true);
        }
    }
    together(5, [](int i) { expectHardStop(kTraps[i], false); });
}

class ThreadLogTest : public kp::test::InstallationTest {};

TEST_F(ThreadLogTest, AnIterationThatFailsIsLoggedAndTheLoopGoesOn) {
    class Failing : public Counted {
    public:
        using Counted::Counted;
        int doTask() override {
            if (++calls % 3 == 0) {
                setContinue(0);
            }
            if (calls > 3) {
                throw std::runtime_error("no");
            }
            return calls;
        }
    };
    site_.openLog(1);
    const std::string line = "Error in: KP_Consumer::run()\n";
    Failing thread(nullptr);
    for (int i = 0; i < 2; ++i) {
        thread.start();
        thread.join(nullptr, 0);
        EXPECT_EQ(site_.newLog(), line + line + line);
    }
}

TEST(ThreadListTest, StartsStopsAndJoinsItsThreadsAsOne) {
    KP_ThreadList list;
    Count calls[3] = {};
    for (Count& each : calls) {
        list.append(new KP_Thread(count, &each));
    }
    EXPECT_EQ(list.isRunning(), 0);
    for (int (*const begin)(KP_ThreadList&) : {+[](KP_ThreadList& it) { return it.start(); },
                                               +[](KP_ThreadList& it) { return it.start(); },
                                               +[](KP_ThreadList& it) { return it.restart(); }}) {
        EXPECT_EQ(begin(list), 0);
        EXPECT_EQ(list.isRunning(), 1);
        for (Count& each : calls) {
            each = 0;
            EXPECT_TRUE(until([&] { return each > 10; }));
        }
    }
    EXPECT_EQ(list.stop(), 0);
    EXPECT_EQ(list.join(nullptr, 0), 0);
    const int seen = calls[0];
    EXPECT_EQ(list.isRunning(), 0);
    EXPECT_EQ(list.stop(), 0);
    EXPECT_EQ(list.join(nullptr, 0), 0);
    EXPECT_EQ(calls[0], seen);
}

TEST(ThreadListTest, IsStoppedFromInsideWhileOthersJoinAndIsDestroyedWhileLoopsRun) {
    for (int round = 0; round < 200; ++round) {
        static KP_ThreadList* list;
        list = KP_ThreadList::create();
        list->append(nullptr);
        for (int i = 0; i < 3; ++i) {
            const auto end = [](void*) {
                list->join(nullptr, 0);
                list->stop();
            };
            list->append(new Counted(round % 2 == 0 ? end : [](void*) {}));
        }
        list->start();
        if (round % 2 == 0) {
            together(2, [](int) { EXPECT_EQ(list->join(nullptr, 0), 0); });
            EXPECT_EQ(list->isRunning(), 0);
        }
        list->release();
        ASSERT_TRUE(until([] { return Counted::alive == 0; })) << round;
    }
}

}  // namespace
