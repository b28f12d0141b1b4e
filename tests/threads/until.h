// Waiting for other threads without a clock that a busy machine would miss.
#pragma once

#include <chrono>
#include <thread>
#include <vector>

namespace kp::test {

/// Gives way until @p condition holds; false when it does not within two minutes.
template <class Condition>
bool until(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (!condition() && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    return condition();
}

/// Runs body(0), body(1) and so on, @p count threads at once, to their end.
template <class Body>
void together(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace kp::test
