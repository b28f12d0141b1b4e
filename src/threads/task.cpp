#include "kp/threads/task.h"

KP_Task::KP_Task(void (*function)(void*), void* arg, int id)
    : function_(function), arg_(arg), id_(id) {}

KP_Task::KP_Task(const KP_Task& other)
    : KP_Object(other), function_(other.function_), arg_(other.arg_), id_(other.id_) {}

KP_Task& KP_Task::operator=(const KP_Task& other) {
    function_ = other.function_;
    arg_ = other.arg_;
    id_ = other.id_;
    return *this;
}

KP_Task::~KP_Task() = default;

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
    return kp::detail::createAndInit<KP_Task>();
}
