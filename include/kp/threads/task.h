// libkp: a piece of work for a thread pool.
#pragma once

#include <cstdint>

#include "kp/core/object.h"

/// A function with its argument, and an identifier by which its owner finds it again.
///
/// KP_ThreadPool::addTask() makes its tasks, and the pool owns them; a pool that overrides
/// createTask() makes tasks of a host's class.
///
/// setRelease() names a function that ends the argument. It is called once, when the task is
/// released, on whatever thread that happens: after the work, or when the task is withdrawn or left
/// over.
///
/// Threads: takes no lock; a task that is queued or runs is left alone.
class KP_API KP_Task : public virtual KP_Object {
public:
    /// A task that calls @p function (null: nothing) with @p arg, which stays the caller's.
    KP_Task(void (*function)(void*) = nullptr, void* arg = nullptr, int id = 0);
    /// A copy is in no queue, and does not end the argument.
    KP_Task(const KP_Task& other);
    /// The target stays in its queue, and what was to end its argument is forgotten.
    KP_Task& operator=(const KP_Task& other);
    ~KP_Task() override;

    /// Calls the function, if there is one, with the argument; returns 0.
    virtual int doTask();
    /// Replaces what doTask() calls, or what it hands over; both return 0.
    virtual int setFunction(void (*function)(void*));
    virtual int setArg(void* arg);
    /// The identifier, any number and not necessarily unique; setting it returns 0.
    virtual int getID();
    virtual int setID(int id);

    /// Has @p end (null: nothing) called with the argument, once, when the task ends, whether it
    /// ran or not; an argument that setArg() has replaced is the caller's. @p end throws
    /// nothing. Returns 0.
    int setRelease(void (*end)(void*)) {
        release_ = end;
        return 0;
    }

    /// Memory for tasks, which come and go by the thousand and mostly end in another thread than
    /// they began in: some blocks, 110 KB at most and 7 KB a thread, are kept for later ones.
    static void* operator new(std::size_t size) noexcept;
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void operator delete(void* memory, std::size_t size) noexcept;
    static void operator delete(void* memory, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}

    /// A new task without a function, or null when memory runs out.
    static KP_Task* create();

private:
    friend class KP_ThreadPool;

    KP_Task* next_ = nullptr;  // In a pool's queue.
    void (*function_)(void*);
    void* arg_;
    void (*release_)(void*) = nullptr;
    std::int32_t id_;
};
