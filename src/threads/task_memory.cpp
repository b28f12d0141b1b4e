#include "threads/task_memory.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>

#include "kp/threads/recursive_lock.h"
#include "kp/threads/task.h"

namespace kp::detail {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// Kept blocks would hide from a sanitizer who uses what for how long.
void* allocateTask() {
    return std::malloc(sizeof(KP_Task));
}

void freeTask(void* memory) {
    std::free(memory);
}

#else

namespace {

constexpr std::size_t kBatch = 64;
constexpr std::size_t kBatches = 32;  // that lie ready at most: some 110 KB

/// Batches that threads had too many of.
class Depot {
public:
    /// Takes a batch from @p blocks; false when there is enough.
    bool give(void* const* blocks) {
        const std::lock_guard<RecursiveLock> guard(lock_);
        if (count_ == kBatches) {
            return false;
        }
        std::copy_n(blocks, kBatch, batches_[count_++]);
        return true;
    }
    bool take(void** blocks) {
        const std::lock_guard<RecursiveLock> guard(lock_);
        if (count_ == 0) {
            return false;
        }
        std::copy_n(batches_[--count_], kBatch, blocks);
        return true;
    }

private:
    RecursiveLock lock_;
    std::size_t count_ = 0;
    void* batches_[kBatches][kBatch] = {};  // With a value, so that it needs no constructor.
};

// Zero from the start: the static objects of a host may use tasks before and after those of ours.
Depot depot;

/// A thread's own blocks.
class Stock {
public:
    ~Stock() { drop(count_); }

    void* take() {
        if (count_ == 0 && depot.take(blocks_)) {
            count_ = kBatch;
        }
        return count_ != 0 ? blocks_[--count_] : std::malloc(sizeof(KP_Task));
    }
    void give(void* block) {
        if (count_ == 2 * kBatch) {
            if (depot.give(blocks_ + kBatch)) {
                count_ = kBatch;
            } else {
                drop(kBatch);
            }
        }
        blocks_[count_++] = block;
    }

private:
    void drop(std::size_t count) {
        for (; count != 0; --count) {
            std::free(blocks_[--count_]);
        }
    }

    std::size_t count_ = 0;
    void* blocks_[2 * kBatch];
};

thread_local Stock* stock = nullptr;
// Set at the end of a thread: what it destroys after that finds no stock any more.
thread_local bool isOver = false;

struct StockEnd {
    ~StockEnd() {
        isOver = true;
        delete stock;
        stock = nullptr;
    }
};

// Null when there is no memory for it, and at the end of the thread.
Stock* ownStock() {
    if (stock == nullptr && !isOver) {
        thread_local StockEnd end;
        static_cast<void>(end);
        stock = new (std::nothrow) Stock;
    }
    return stock;
}

}  // namespace

void* allocateTask() {
    Stock* const own = ownStock();
    return own != nullptr ? own->take() : std::malloc(sizeof(KP_Task));
}

void freeTask(void* memory) {
    if (Stock* const own = ownStock()) {
        own->give(memory);
    } else {
        std::free(memory);
    }
}

#endif

}  // namespace kp::detail
