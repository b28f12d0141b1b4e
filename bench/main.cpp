// Runs the benchmarks of a family in a process that has more than one thread, as every host has:
// some libraries take a short cut while there is only one.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <thread>

int main(int argc, char** argv) {
    std::mutex mutex;
    std::condition_variable wake;
    bool ended = false;
    std::thread parked([&] {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [&] { return ended; });
    });
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ended = true;
    }
    wake.notify_one();
    parked.join();
    return 0;
}
