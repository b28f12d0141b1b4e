// Memory of tasks, which one thread asks for and another one gives back.
//
// An allocator's own caches are a thread's: what a worker frees does not come back to the thread
// that adds tasks but through the allocator's shared state, which then moves between the processors
// with every task. Here it comes back in batches.
#pragma once

#include <cstddef>

namespace kp::detail {

/// Memory for an object of KP_Task itself; null when there is none. Any thread.
void* allocateTask();
/// Takes it back, from any thread.
void freeTask(void* memory);

}  // namespace kp::detail
