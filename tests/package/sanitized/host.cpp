// A host that is built with the thread sanitizer and uses a library that is not. All that its threads share is plain
// memory, handed over by the library's locks, events, threads and tasks; with -DRACE one counter is not.
#include <kp/kp.h>

#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr int kRounds = 2000;

struct Totals {
    KP_Mutex lock;
    KP_ReaderWriterMutex shared;
    long locked = 0;
    long written = 0;
    long unguarded = 0;
};

void underLocks(Totals& totals) {
    for (int i = 0; i < kRounds; ++i) {
        totals.lock.lock();
        ++totals.locked;
        totals.lock.unlock();
        totals.shared.wLock();
        ++totals.written;
        totals.shared.wUnlock();
        totals.shared.rLock();
        static_cast<void>(totals.written);
        totals.shared.rUnlock();
#if defined(RACE)
        ++totals.unguarded;
#endif
    }
}

// One thread waits, the other one writes and signals.
long byEvent() {
    KP_Event event;
    long value = 0;
    std::thread reader([&] { value = event.wait(nullptr, 0) == 0 ? value * 2 : -1; });
    while (event.numWaiting() == 0) {
    }
    value = 21;
    event.signal();
    reader.join();
    return value;
}

// Its parts are destroyed by whoever lets go of it last.
struct Worker : KP_Thread {
    ~Worker() override { data.clear(); }
    int doTask() override {
        data.push_back(1);
        setContinue(0);
        return 0;
    }
    std::vector<int> data;
};

long byThreads() {
    for (int i = 0; i < 200; ++i) {
        auto* worker = new Worker;
        worker->data.push_back(0);
        worker->start();
        worker->release();
    }
    Worker joined;
    joined.start();
    joined.join(nullptr, 0);
    return static_cast<long>(joined.data.size());
}

struct Job {
    std::vector<int> numbers;
    long* sum;
    KP_Mutex* lock;
};

long byTasks() {
    long sum = 0;
    KP_Mutex lock;
    KP_ThreadPool pool(3);
    pool.setAutoStart(1);
    for (int i = 0; i < kRounds; ++i) {
        const auto add = [](void* argument) {
            const auto* job = static_cast<Job*>(argument);
            job->lock->lock();
            *job->sum += job->numbers[0];
            job->lock->unlock();
        };
        pool.addTask(add, new Job{{1, 2, 3}, &sum, &lock}, i,
                     [](void* job) { delete static_cast<Job*>(job); });
    }
    pool.setAutoStop(1);
    pool.join(nullptr, 0);
    return sum;
}

// Elements that one thread makes and another one takes out and ends.
long byList() {
    KP_List<KP_String> list;
    long taken = 0;
    std::thread taker([&] {
        while (taken < kRounds) {
            list.lock();
            KP_String* const text = list.first();
            list.removeCurrent();
            list.unlock();
            if (text != nullptr) {
                taken += text->getLength() == 1 ? 1 : 0;
                text->release();
            }
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        list.append(new KP_String("x"));
    }
    taker.join();
    return taken;
}

}  // namespace

int main() {
    Totals totals;
    std::thread other([&] { underLocks(totals); });
    underLocks(totals);
    other.join();
    const bool isRight = totals.locked == 2 * kRounds && totals.written == 2 * kRounds &&
                         byEvent() == 42 && byThreads() == 1 && byTasks() == kRounds &&
                         byList() == kRounds;
    std::puts(isRight ? "right" : "wrong");
    return isRight ? 0 : 1;
}
