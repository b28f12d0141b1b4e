// An allocator that fails when a test wants it to. Add failing_malloc.cpp to the test's own
// sources: it takes the place of malloc() and its kin in the whole executable, with sanitizers or
// without.
#pragma once

#include <functional>

namespace kp::test {

/// While it lives, one allocation of this thread fails, or every one from there on; one at a time.
/// Allocations are malloc(), calloc(), realloc(), and `new`, which comes down to malloc().
class FailingMalloc {
public:
    enum Mode { kOnce, kFromThenOn };

    /// @p number: which allocation fails, counted from 1; 0: none does, they are only counted.
    explicit FailingMalloc(int number = 0, Mode mode = kOnce);
    ~FailingMalloc();
    FailingMalloc(const FailingMalloc&) = delete;
    FailingMalloc& operator=(const FailingMalloc&) = delete;

    /// Allocations so far, refused ones included.
    int allocations() const;
    bool hasRefused() const;
    /// Blocks got less blocks freed since the start.
    int liveBlocks() const;
};

/// Runs @p operation with its first allocation failing, its second, and so on until one run is
/// refused nothing; first with one failure a run, then with all that follow failing too.
/// Each run must return true, for "succeeded, or failed as told", and must leave no block behind.
void failEachAllocation(const std::function<bool()>& operation);

}  // namespace kp::test
