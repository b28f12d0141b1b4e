// 200,000 tasks that do next to nothing, on two workers.
#include <benchmark/benchmark.h>
#include <kp/threads/thread_pool.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#if defined(KP_PEER_POCO)
#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#endif
#if defined(KP_PEER_QT)
#include <QRunnable>
#include <QThreadPool>
#endif
#if defined(KP_PEER_GLIB)
#include <glib.h>
#endif
#if defined(KP_PEER_BOOST)
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#endif

namespace {

constexpr int kTasks = 200000;
std::atomic<int> done{0};

void tiny(void*) {
    done.fetch_add(1, std::memory_order_relaxed);
}

template <class Add>
void measure(benchmark::State& state, Add add) {
    for (auto _ : state) {
        done = 0;
        for (int i = 0; i < kTasks; ++i) {
            add();
        }
        while (done.load(std::memory_order_relaxed) < kTasks) {
            std::this_thread::yield();
        }
    }
    state.SetItemsProcessed(state.iterations() * kTasks);
}

void kpPool(benchmark::State& state) {
    KP_ThreadPool pool(2);
    pool.start();
    measure(state, [&] { pool.addTask(tiny, nullptr, 0); });
}
BENCHMARK(kpPool)->Name("pool/KP_ThreadPool")->UseRealTime()->Unit(benchmark::kMillisecond);

// The contract of a textbook: no objects, no identifiers, one wake-up for each task.
void plainDeque(benchmark::State& state) {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    bool ended = false;
    const auto work = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [&] { return ended || !tasks.empty(); });
            if (tasks.empty()) {
                return;
            }
            const auto task = std::move(tasks.front());
            tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
    };
    std::thread first(work);
    std::thread second(work);
    measure(state, [&] {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            tasks.emplace_back([] { tiny(nullptr); });
        }
        wake.notify_one();
    });
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ended = true;
    }
    wake.notify_all();
    first.join();
    second.join();
}
BENCHMARK(plainDeque)->Name("pool/plain deque")->UseRealTime()->Unit(benchmark::kMillisecond);

#if defined(KP_PEER_QT)
class QtTask : public QRunnable {
public:
    void run() override { tiny(nullptr); }
};
void qtPool(benchmark::State& state) {
    QThreadPool pool;
    pool.setMaxThreadCount(2);
    measure(state, [&] { pool.start(new QtTask); });
    pool.waitForDone();
}
BENCHMARK(qtPool)->Name("pool/QThreadPool")->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

#if defined(KP_PEER_POCO)
void pocoQueue(benchmark::State& state) {
    Poco::NotificationQueue queue;
    const auto work = [&] {
        for (Poco::AutoPtr<Poco::Notification> task(queue.waitDequeueNotification()); task;
             task = queue.waitDequeueNotification()) {
            tiny(nullptr);
        }
    };
    std::thread first(work);
    std::thread second(work);
    measure(state, [&] { queue.enqueueNotification(new Poco::Notification); });
    while (!queue.hasIdleThreads()) {
        std::this_thread::yield();
    }
    queue.wakeUpAll();
    first.join();
    queue.wakeUpAll();
    second.join();
}
BENCHMARK(pocoQueue)
    ->Name("pool/Poco::NotificationQueue")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
#endif

#if defined(KP_PEER_GLIB)
void glibPool(benchmark::State& state) {
    GThreadPool* pool =
        g_thread_pool_new([](gpointer, gpointer) { tiny(nullptr); }, nullptr, 2, TRUE, nullptr);
    measure(state, [&] { g_thread_pool_push(pool, &done, nullptr); });
    g_thread_pool_free(pool, FALSE, TRUE);
}
BENCHMARK(glibPool)->Name("pool/GThreadPool")->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

#if defined(KP_PEER_BOOST)
void asioPool(benchmark::State& state) {
    boost::asio::thread_pool pool(2);
    measure(state, [&] { boost::asio::post(pool, [] { tiny(nullptr); }); });
    pool.join();
}
BENCHMARK(asioPool)->Name("pool/asio::thread_pool")->UseRealTime()->Unit(benchmark::kMillisecond);
#endif

}  // namespace
