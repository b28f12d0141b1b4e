#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "kp/threads/counter.h"
#include "kp/threads/reader_writer_mutex.h"
#include "threads/until.h"

namespace {

using kp::test::together;
using kp::test::until;

TEST(MutexTest, IsHeldByOneThreadUntilItWasGivenUpAsOftenAsItWasTaken) {
    KP_Mutex mutex;
    int value = 0;
    together(4, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            const std::lock_guard<KP_Mutex> outer(mutex);
            const int before = value++;
            EXPECT_TRUE(mutex.try_lock());
            mutex.unlock();
            value = before + 1;
        }
    });
    EXPECT_EQ(value, 80000);
    const auto isFree = [&mutex] {
        bool taken = false;
        together(1, [&](int) {
            taken = mutex.try_lock();
            taken ? mutex.unlock() : void();
        });
        return taken && mutex.isLocked() == 0;
    };
    mutex.lock();
    mutex.lock();
    mutex.unlock();
    EXPECT_FALSE(isFree());
    EXPECT_EQ(mutex.isLocked(), 1);
    EXPECT_EQ(KP_Mutex(mutex).isLocked(), 0);
    mutex.unlock();
    EXPECT_TRUE(isFree());
}

TEST(EventTest, EachSignalReleasesOneOfTheThreadsThatWaitedWhenItWasGiven) {
    for (int round = 0; round < 200 && !HasFailure(); ++round) {
        KP_Event event;
        int written = 0;
        std::atomic<int> released{0};
        together(4, [&](int i) {
            if (i > 0) {
                EXPECT_EQ(event.wait(nullptr, 0), 0);
                EXPECT_EQ(written, 1);
                ++released;
                return;
            }
            EXPECT_TRUE(until([&] { return event.numWaiting() == 3; }));
            written = 1;
            event.signal();
            event.signal();
            EXPECT_EQ(event.wait(nullptr, 1), -1);
            EXPECT_TRUE(until([&] { return released == 2; }));
            EXPECT_EQ(event.numWaiting(), 1);
            event.signal();
        });
    }
}

TEST(EventTest, NeitherKeepsNorInventsASignalWhenWaitsTimeOut) {
    KP_Event event;
    std::atomic<int> waiting{3};
    std::atomic<int> taken{0};
    int given = 0;
    together(4, [&](int i) {
        for (KP_Event pause; i == 0 && waiting > 0; pause.wait(nullptr, 1)) {
            given += 2 + event.signal() + event.signal();
        }
        for (int n = 0; i > 0 && n < 300; ++n) {
            taken += event.wait(nullptr, 1) + 1;
        }
        waiting -= i > 0 ? 1 : 0;
    });
    EXPECT_LE(taken, given);
    EXPECT_EQ(event.signal(), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(event.wait(nullptr, 50), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
    EXPECT_EQ(event.numWaiting(), 0);
}

// A signal that is lost between the question and the sleep would end this in the test's time limit.
TEST(EventTest, AWaitForAConditionMissesNoSignal) {
    constexpr int kRounds = 20000;
    KP_Event event;
    std::atomic<int> turn{0};
    together(2, [&](int i) {
        for (int n = 0; n < kRounds; ++n) {
            EXPECT_EQ(event.waitUntil([&] { return turn % 2 == i; }), 0);
            ++turn;
            event.signal();
        }
    });
    EXPECT_EQ(turn, 2 * kRounds);
    EXPECT_EQ(event.waitUntil([] { return false; }, 20), -1);
    EXPECT_EQ(event.waitUntil([] { return true; }, 20), 0);
    EXPECT_EQ(event.numWaiting(), 0);
}

TEST(CounterTest, CountsForManyThreadsAndWraps) {
    KP_Counter counter;
    together(4, [&](int) {
        for (int i = 0; i < 10000; ++i) {
            counter.increment(5);
            counter.decrement(2);
        }
    });
    counter.decrement(120001);
    EXPECT_EQ(KP_Counter(counter).getCount(), 4294967295U);
}

TEST(ReaderWriterMutexTest, AReaderPassesAWriterThatWaitsForAllReaders) {
    for (int round = 0; round < 100; ++round) {
        KP_ReaderWriterMutex lock;
        std::atomic<bool> coming{false};
        bool written = false;
        EXPECT_EQ(lock.rLock(), 0);
        std::thread writer([&] {
            coming = true;
            EXPECT_EQ(lock.wLock(), 0);
            written = true;
            EXPECT_EQ(lock.wUnlock(), 0);
        });
        EXPECT_TRUE(until([&] { return coming.load(); }));
        together(2, [&](int) {
            const std::shared_lock<KP_ReaderWriterMutex> reader(lock);
            EXPECT_FALSE(written);
        });
        EXPECT_FALSE(written);
        EXPECT_EQ(lock.rUnlock(), 0);
        writer.join();
        EXPECT_TRUE(written);
    }
}

TEST(ReaderWriterMutexTest, KeepsWritersApartFromAllAndForgetsNobody) {
    KP_ReaderWriterMutex lock;
    int first = 0;
    int second = 0;
    together(8, [&](int i) {
        for (int n = 0; n < 3000; ++n) {
            if (i < 3) {
                const std::lock_guard<KP_ReaderWriterMutex> writer(lock);
                second = ++first;
            } else {
                const std::shared_lock<KP_ReaderWriterMutex> reader(lock);
                EXPECT_EQ(first, second);
            }
        }
    });
    EXPECT_EQ(first, 9000);
}

}  // namespace
