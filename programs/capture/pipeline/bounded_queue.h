// kp-capture: what one stage leaves for the next.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>

namespace kp::capture {

/// A queue that makes its writers wait while it is full: a slow stage slows those before it down
/// and memory stays bounded.
///
/// Threads: any number on either side.
template <class T>
class BoundedQueue {
public:
    explicit BoundedQueue(std::size_t most) : most_(most) {}

    /// Adds @p item at the end; waits while the queue is full.
    void push(T item) {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [this] { return items_.size() < most_; });
        items_.push_back(std::move(item));
        lock.unlock();
        more_.notify_one();
    }

    /// Takes the first item; false when none came in time.
    bool pop(T& item, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!more_.wait_for(lock, limit, [this] { return !items_.empty(); }))
            return false;
        item = std::move(items_.front());
        items_.pop_front();
        lock.unlock();
        room_.notify_one();
        return true;
    }

    bool isEmpty() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return items_.empty();
    }

private:
    const std::size_t most_;
    mutable std::mutex mutex_;
    std::condition_variable room_;
    std::condition_variable more_;
    std::deque<T> items_;
};

}  // namespace kp::capture
