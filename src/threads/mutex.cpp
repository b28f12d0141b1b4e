#include "kp/threads/mutex.h"

KP_Mutex::~KP_Mutex() = default;

void KP_Mutex::lock() {
    lock_.lock();
}

void KP_Mutex::unlock() {
    lock_.unlock();
}

int KP_Mutex::isLocked() {
    return lock_.isLocked() ? 1 : 0;
}

void* KP_Mutex::mutex() {
    return &lock_;
}

char* KP_Mutex::getClassName() {
    return kp::detail::className("KP_Mutex");
}

int KP_Mutex::queryInterface(unsigned long id, void** out) {
    return kp::detail::answerAs<KP_Mutex, KP_Object>(this, id, out);
}

KP_Mutex* KP_Mutex::create() {
    return new KP_Mutex;
}
