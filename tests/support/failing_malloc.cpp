#include "support/failing_malloc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

// Where allocations go when they do not fail: to the sanitizer's allocator in a build that has one,
// so that it still sees every block, else to that of the C library.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* block, std::size_t size);
[[gnu::weak]] void __interceptor_free(void* block);
}

// Allocations come before the sanitizers are ready, so none of this may be instrumented.
#define KP_BARE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

struct State {
    bool active;
    bool persistent;
    bool refused;
    int failAt;
    int allocations;
    int live;
};

thread_local State state;

// Counts an allocation; true when it is to fail.
KP_BARE bool refuse() {
    if (!state.active) {
        return false;
    }
    ++state.allocations;
    const int beyond = state.allocations - state.failAt;
    if (state.failAt == 0 || beyond < 0 || (beyond > 0 && !state.persistent)) {
        return false;
    }
    state.refused = true;
    errno = ENOMEM;
    return true;
}

KP_BARE void* counted(void* block) {
    state.live += state.active && block != nullptr ? 1 : 0;
    return block;
}

}  // namespace

extern "C" {

KP_BARE void* malloc(std::size_t size) noexcept {
    const auto real = __interceptor_malloc != nullptr ? __interceptor_malloc : __libc_malloc;
    return refuse() ? nullptr : counted(real(size));
}

KP_BARE void* calloc(std::size_t count, std::size_t size) noexcept {
    const auto real = __interceptor_calloc != nullptr ? __interceptor_calloc : __libc_calloc;
    return refuse() ? nullptr : counted(real(count, size));
}

KP_BARE void* realloc(void* block, std::size_t size) noexcept {
    const auto real = __interceptor_realloc != nullptr ? __interceptor_realloc : __libc_realloc;
    if (refuse()) {
        return nullptr;
    }
    return block == nullptr ? counted(real(block, size)) : real(block, size);
}

KP_BARE void free(void* block) noexcept {
    state.live -= state.active && block != nullptr ? 1 : 0;
    (__interceptor_free != nullptr ? __interceptor_free : __libc_free)(block);
}

}  // extern "C"

namespace kp::test {

FailingMalloc::FailingMalloc(int number, Mode mode) {
    state = {true, mode == kFromThenOn, false, number, 0, 0};
}

FailingMalloc::~FailingMalloc() {
    state.active = false;
}

int FailingMalloc::allocations() const {
    return state.allocations;
}

bool FailingMalloc::hasRefused() const {
    return state.refused;
}

int FailingMalloc::liveBlocks() const {
    return state.live;
}

void failEachAllocation(const std::function<bool()>& operation) {
    for (const auto mode : {FailingMalloc::kOnce, FailingMalloc::kFromThenOn}) {
        bool refused = true;
        for (int number = 1; refused; ++number) {
            bool asTold = false;
            int left = 0;
            {
                const FailingMalloc failing(number, mode);
                asTold = operation();
                refused = failing.hasRefused();
                left = failing.liveBlocks();
            }
            EXPECT_TRUE(asTold) << "allocation " << number << ", mode " << mode;
            EXPECT_EQ(left, 0) << "blocks left, allocation " << number << ", mode " << mode;
        }
    }
}

}  // namespace kp::test
