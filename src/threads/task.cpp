#include "kp/threads/task.h"

#include <cstdlib>

#include "threads/task_memory.h"

KP_Task::KP_Task(void (*function)(void*), void* arg, int id)
    : function_(function), arg_(arg), id_(id) {}

KP_Task::KP_Task(const KP_Task& other)
    : KP_Object(other), function_(other.function_), arg_(other.arg_), id_(other.id_) {}

KP_Task& KP_Task::operator=(const KP_Task& other) {
    if (this != &other) {
        function_ = other.function_;
        arg_ = other.arg_;
        id_ = other.id_;
        release_ = nullptr;
    }
    return *this;
}

KP_Task::~KP_Task() {
    if (release_ != nullptr) {
        release_(arg_);
    }
}

void* KP_Task::operator new(std::size_t size) noexcept {
    // A host's class that is larger, and inherits this, has memory of its own.
    return size == sizeof(KP_Task) ? kp::detail::allocateTask() : std::malloc(size);
}

void* KP_Task::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size);
}

void KP_Task::operator delete(void* memory, std::size_t size) noexcept {
    if (size != sizeof(KP_Task)) {
        std::free(memory);
    } else if (memory != nullptr) {
        kp::detail::freeTask(memory);
    }
}

// For a constructor that throws, which ours do not.
void KP_Task::operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}

int KP_Task::doTask() {
    if (function_ != nullptr) {
        function_(arg_);
    }
    return 0;
}

int KP_Task::setFunction(void (*function)(void*)) {
    function_ = function;
    return 0;
}

int KP_Task::setArg(void* arg) {
    arg_ = arg;
    return 0;
}

int KP_Task::getID() {
    return id_;
}

int KP_Task::setID(int id) {
    id_ = id;
    return 0;
}

KP_Task* KP_Task::create() {
    return kp::createAndInit<KP_Task>();
}
