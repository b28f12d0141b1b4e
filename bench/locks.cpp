// Recursive locks, and the event between two threads.
#include <benchmark/benchmark.h>
#include <kp/threads/event.h>
#include <kp/threads/mutex.h>
#include <kp/threads/reader_writer_mutex.h>
#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

#if defined(KP_PEER_POCO)
#include <Poco/Event.h>
#include <Poco/Mutex.h>
#endif
#if defined(KP_PEER_QT)
#include <QMutex>
#include <QReadWriteLock>
#include <QSemaphore>
#endif
#if defined(KP_PEER_GLIB)
#include <glib.h>
#endif
#if defined(KP_PEER_BOOST)
#include <boost/thread/recursive_mutex.hpp>
#endif

namespace {

#if defined(KP_PEER_GLIB)
struct GLibRecursiveMutex {
    GLibRecursiveMutex() { g_rec_mutex_init(&mutex); }
    ~GLibRecursiveMutex() { g_rec_mutex_clear(&mutex); }
    void lock() { g_rec_mutex_lock(&mutex); }
    void unlock() { g_rec_mutex_unlock(&mutex); }
    GRecMutex mutex;
};
#endif

template <class Mutex>
void lockUnlock(benchmark::State& state) {
    static Mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        benchmark::DoNotOptimize(&mutex);
        mutex.unlock();
    }
}

template <class Mutex>
void lockNested(benchmark::State& state) {
    static Mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.lock();
        benchmark::DoNotOptimize(&mutex);
        mutex.unlock();
        mutex.unlock();
    }
}

#define RECURSIVE(Mutex)                                            \
    BENCHMARK(lockUnlock<Mutex>)->Name("lock/uncontended/" #Mutex); \
    BENCHMARK(lockNested<Mutex>)->Name("lock/nested/" #Mutex);      \
    BENCHMARK(lockUnlock<Mutex>)->Name("lock/contended/" #Mutex)->Threads(2)->UseRealTime()

RECURSIVE(KP_Mutex);
RECURSIVE(std::recursive_mutex);
#if defined(KP_PEER_POCO)
RECURSIVE(Poco::Mutex);
#endif
#if defined(KP_PEER_QT)
RECURSIVE(QRecursiveMutex);
#endif
#if defined(KP_PEER_GLIB)
RECURSIVE(GLibRecursiveMutex);
#endif
#if defined(KP_PEER_BOOST)
RECURSIVE(boost::recursive_mutex);
#endif

template <class Lock>
void readLock(benchmark::State& state) {
    static Lock lock;
    for (auto _ : state) {
        lock.lock_shared();
        benchmark::DoNotOptimize(&lock);
        lock.unlock_shared();
    }
}
BENCHMARK(readLock<KP_ReaderWriterMutex>)->Name("read_lock/KP_ReaderWriterMutex");
BENCHMARK(readLock<std::shared_mutex>)->Name("read_lock/std::shared_mutex");

// --- a ball between two threads: each round is two wake-ups ---

// The event forgets a signal that nobody waits for, so the ball itself lies beside it.
class KpBall {
public:
    void pass() {
        ball_ = true;
        event_.signal();
    }
    void take() {
        event_.waitUntil([this] { return ball_.exchange(false); });
    }

private:
    KP_Event event_;
    std::atomic<bool> ball_{false};
};

class ConditionBall {
public:
    void pass() {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            ball_ = true;
        }
        condition_.notify_one();
    }
    void take() {
        std::unique_lock<std::mutex> guard(mutex_);
        condition_.wait(guard, [this] { return ball_; });
        ball_ = false;
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool ball_ = false;
};

class SemaphoreBall {
public:
    SemaphoreBall() { sem_init(&semaphore_, 0, 0); }
    ~SemaphoreBall() { sem_destroy(&semaphore_); }
    void pass() { sem_post(&semaphore_); }
    void take() { sem_wait(&semaphore_); }

private:
    sem_t semaphore_;
};

#if defined(KP_PEER_POCO)
class PocoBall {
public:
    void pass() { event_.set(); }
    void take() { event_.wait(); }

private:
    Poco::Event event_;
};
#endif
#if defined(KP_PEER_QT)
class QtBall {
public:
    void pass() { semaphore_.release(); }
    void take() { semaphore_.acquire(); }

private:
    QSemaphore semaphore_;
};
#endif

template <class Ball>
void pingPong(benchmark::State& state) {
    Ball there;
    Ball back;
    std::atomic<bool> ended{false};
    std::thread other([&] {
        for (there.take(); !ended; there.take()) {
            back.pass();
        }
    });
    for (auto _ : state) {
        there.pass();
        back.take();
    }
    ended = true;
    there.pass();
    other.join();
}
BENCHMARK(pingPong<KpBall>)->Name("event_round_trip/KP_Event")->UseRealTime();
BENCHMARK(pingPong<SemaphoreBall>)->Name("event_round_trip/posix semaphore")->UseRealTime();
BENCHMARK(pingPong<ConditionBall>)->Name("event_round_trip/std::condition_variable")->UseRealTime();
#if defined(KP_PEER_POCO)
BENCHMARK(pingPong<PocoBall>)->Name("event_round_trip/Poco::Event")->UseRealTime();
#endif
#if defined(KP_PEER_QT)
BENCHMARK(pingPong<QtBall>)->Name("event_round_trip/QSemaphore")->UseRealTime();
#endif

}  // namespace
