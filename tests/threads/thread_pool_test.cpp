#include "kp/threads/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "support/installation.h"
#include "threads/until.h"

namespace {

using kp::test::together;
using kp::test::until;

using Count = std::atomic<int>;

// What became of the tasks of one identifier: run, or released without that.
struct Fate {
    Count run{0};
    Count withdrawn{0};
    int gone() const { return run + withdrawn; }
};

Fate fates[10];

class CountedTask : public KP_Task {
public:
    using KP_Task::KP_Task;
    ~CountedTask() override { ++(ran_ ? fates[getID()].run : fates[getID()].withdrawn); }
    int doTask() override {
        ran_ = true;
        return KP_Task::doTask();
    }

private:
    bool ran_ = false;
};

class CountedPool : public KP_ThreadPool {
public:
    explicit CountedPool(int threads) : KP_ThreadPool(threads) {
        for (Fate& fate : fates) {
            fate.run = fate.withdrawn = 0;
        }
    }
    ~CountedPool() override { reset(); }
    KP_Task* createTask(void (*function)(void*), void* arg, int id) override {
        return new CountedTask(function, arg, id);
    }
};

void nothing(void*) {}

// Something that a task waits for.
struct Gate {
    Count entered{0};
    std::atomic<bool> open{false};
    Count left{0};
    static void pass(void* arg) {
        auto* gate = static_cast<Gate*>(arg);
        ++gate->entered;
        EXPECT_TRUE(until([&] { return gate->open.load(); }));
        for (int i = 0; i < 1000; ++i) {
            std::this_thread::yield();
        }
        ++gate->left;
    }
    bool isEntered() const {
        return until([&] { return entered > 0; });
    }
};

TEST(ThreadPoolTest, RunsEachTaskOnceAndOneWorkerRunsThemInOrder) {
    constexpr int kTasks = 200000;
    for (const int workers : {1, 2, 8}) {
        static Count next;
        next = 0;
        std::vector<Count> places(kTasks);
        KP_ThreadPool pool(workers);
        pool.setAutoStart(1);
        for (Count& place : places) {
            place = -1;
            pool.addTask([](void* mine) { *static_cast<Count*>(mine) = next++; }, &place, 1);
        }
        EXPECT_TRUE(until([] { return next == kTasks; }));
        pool.stop();
        pool.join(nullptr, 0);
        EXPECT_EQ(next, kTasks);
        for (int i = 0; i < kTasks; ++i) {
            ASSERT_TRUE(workers == 1 ? places[i] == i : places[i] >= 0) << i;
        }
    }
}

TEST(ThreadPoolTest, LosesNoTaskBetweenAutoStopAndAutoStart) {
    CountedPool pool(2);
    pool.setAutoStart(1);
    pool.setAutoStop(1);
    for (int i = 1; i <= 12; ++i) {
        const auto task = [](void* it) { static_cast<KP_ThreadPool*>(it)->addTask(nothing, 0, 2); };
        pool.addTask(task, &pool, 1);
        ASSERT_TRUE(until([&] { return fates[1].run == i && fates[2].run == i; }));
        if (i % 3 == 0) {
            ASSERT_TRUE(until([&] { return pool.isRunning() == 0; }));
        }
        KP_Event().wait(nullptr, 95 + i);
    }
}

TEST(ThreadPoolTest, AStartThatMeetsAWorkerStoppingItsPoolLosesNoWorker) {
    KP_ThreadPool pool(1);
    pool.setAutoStart(1);
    static Count done;
    done = 0;
    for (int i = 1; i <= 5000; ++i) {
        pool.addTask([](void* it) { static_cast<KP_ThreadPool*>(it)->stop(); }, &pool, 1);
        pool.addTask([](void*) { ++done; }, nullptr, 2);
        ASSERT_TRUE(until([&] { return pool.start() == 0 && done == i; })) << i;
    }
}

TEST(ThreadPoolTest, RunsOrWithdrawsEachTaskWhileOthersAddStopAndStart) {
    CountedPool pool(4);
    constexpr int kTasks = 20000;
    Count adding{2};
    together(6, [&](int i) {
        for (int n = 0; i < 2 && n < kTasks; ++n) {
            pool.addTask(nothing, nullptr, n % 2);
        }
        adding -= i < 2 ? 1 : 0;
        while (i >= 2 && adding > 0) {
            i < 4 ? pool.removeTasksByID(1) : pool.restart();
            i == 5 ? pool.stop() : 0;
        }
    });
    pool.start();
    EXPECT_TRUE(until([] { return fates[0].gone() + fates[1].gone() == 2 * kTasks; }));
    EXPECT_EQ(fates[0].run, kTasks);
}

TEST(ThreadPoolTest, RemovalWaitsForARunningTaskExceptFromInside) {
    CountedPool pool(1);
    Gate gate;
    pool.addTask(Gate::pass, &gate, 7);
    pool.addTask(nothing, nullptr, 7);
    pool.addTask(nothing, nullptr, 3);
    pool.start();
    ASSERT_TRUE(gate.isEntered());
    together(4, [&](int i) {
        if (i == 3) {
            EXPECT_TRUE(until([&] { return pool.isRunning() == 0; }));
            EXPECT_EQ(gate.left, 0);
            gate.open = true;
        } else {
            pool.removeTasksByID(7);
            EXPECT_EQ(gate.left, 1);
        }
    });
    const auto remove = [](void* it) { static_cast<KP_ThreadPool*>(it)->removeTasksByID(7); };
    pool.addTask(remove, &pool, 7);
    EXPECT_TRUE(until([] { return fates[7].run == 2 && fates[3].run == 1; }));
    EXPECT_EQ(pool.isRunning(), 1);
    EXPECT_EQ(fates[7].withdrawn, 1);
    together(2, [&](int i) {
        if (i == 0) {
            pool.join(nullptr, 0);
        } else {
            pool.removeTasksByID(7);
            pool.stop();
        }
    });
}

TEST(ThreadPoolTest, ResetWaitsForItsTasksAndInitMakesNewWorkers) {
    CountedPool pool(3);
    Gate gate;
    pool.addTask(Gate::pass, &gate, 1);
    pool.start();
    ASSERT_TRUE(gate.isEntered());
    pool.addTask(nothing, nullptr, 2);
    pool.addThread();
    pool.init();
    EXPECT_EQ(pool.getCount(), 4);
    pool.stop();
    gate.open = true;
    pool.reset();
    EXPECT_EQ(gate.left, 1);
    EXPECT_EQ(fates[2].gone(), 1);
    EXPECT_EQ(pool.getCount(), 0);
    pool.setAutoStart(1);
    together(3, [&](int i) {
        for (int n = 0; n < 300; ++n) {
            i == 0 ? pool.reset() + pool.init() : pool.addTask(nothing, nullptr, 3);
            i == 2 ? pool.start() : 0;
        }
    });
    pool.addTask([](void* it) { EXPECT_EQ(static_cast<KP_ThreadPool*>(it)->reset(), -1); }, &pool,
                 4);
    EXPECT_TRUE(until([] { return fates[4].run == 1; }));
    EXPECT_EQ(pool.getCount(), 3);
    EXPECT_TRUE(until([] { return fates[3].gone() == 600; }));
}

TEST(ThreadPoolTest, IsDestroyedAtAnyMoment) {
    for (int round = 0; round < 300; ++round) {
        {
            CountedPool pool(round % 3);
            for (int i = 0; i < 100; ++i) {
                pool.addTask(round % 2 == 0 ? nothing : nullptr, nullptr, 1);
                if (i == round % 100) {
                    pool.start();
                }
            }
        }
        ASSERT_EQ(fates[1].gone(), 100);
        EXPECT_TRUE(round % 3 > 0 || fates[1].withdrawn == 100);

        KP_ThreadPool pool(2);
        pool.setAutoStart(1);
        for (int i = 0; i < 30; ++i) {
            pool.addTask(
                [](void* it) {
                    static_cast<KP_ThreadPool*>(it)->removeTasksByID(9);
                    static_cast<KP_ThreadPool*>(it)->addTask(nothing, nullptr, 9);
                    static_cast<KP_ThreadPool*>(it)->restart();
                },
                &pool, 1);
        }
    }
}

TEST(ThreadPoolTest, AHardStopBreaksOffATaskAndNotThePool) {
    static KP_ThreadPool* pool;
    void (*const works[])(void*) = {[](void* inside) {
                                        for (;;) {
                                            ++*static_cast<Count*>(inside);
                                        }
                                    },
                                    [](void* inside) {
                                        for (;;) {
                                            ++*static_cast<Count*>(inside);
                                            pool->addTask(nullptr, nullptr, 8);
                                        }
                                    },
                                    [](void* inside) {
                                        for (;;) {
                                            ++*static_cast<Count*>(inside);
                                            pool->removeTasksByID(6);
                                        }
                                    },
                                    [](void* inside) {
                                        for (;;) {
                                            *static_cast<Count*>(inside) += pool->getCount();
                                        }
                                    }};
    for (int round = 0; round < 30; ++round) {
        Count inside{0};
        Count after{0};
        pool = new KP_ThreadPool(1);
        pool->first()->setHardStop(1);
        pool->addTask(works[round % 4], &inside, 7);
        pool->start();
        ASSERT_TRUE(until([&] { return inside > round; }));
        pool->stop();
        pool->join(nullptr, 0);
        pool->removeTasksByID(7);
        pool->addTask([](void* it) { ++*static_cast<Count*>(it); }, &after, 7);
        ASSERT_TRUE(until([&] { return after == 1; }));
        pool->release();
    }
}

class ThreadPoolLogTest : public kp::test::InstallationTest {};

TEST_F(ThreadPoolLogTest, ATaskThatThrowsIsLoggedAndOneWithoutAFunctionIsNotRun) {
    site_.openLog();
    CountedPool pool(1);
    pool.addTask([](void*) { throw 1; }, nullptr, 5);
    pool.addTask(nullptr, nullptr, 6);
    pool.start();
    EXPECT_TRUE(until([] { return fates[5].run + fates[6].run == 2; }));
    EXPECT_EQ(site_.newLog(), "TIME - KP_ThreadPool: task 5 ended with an exception\n");
}

// Three tasks that wait for each other need three workers at once, however they came to the queue.
TEST(ThreadPoolTest, NoWorkerSleepsWhileATaskWaits) {
    struct Meeting {
        std::atomic<int> come{0};
        std::atomic<int> gone{0};
    };
    KP_ThreadPool pool(3);
    pool.start();
    for (int round = 0; round < 20000; ++round) {
        Meeting meeting;
        for (int i = 0; i < 3; ++i) {
            pool.addTask(
                [](void* arg) {
                    auto* const all = static_cast<Meeting*>(arg);
                    ++all->come;
                    until([all] { return all->come == 3; });
                    ++all->gone;
                },
                &meeting, i);
        }
        ASSERT_TRUE(until([&] { return meeting.gone == 3; })) << round;
    }
}

}  // namespace
