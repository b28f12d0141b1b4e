#include "kp/core/reference_counter.h"

#include "platform/platform.h"

KP_ReferenceCounter::KP_ReferenceCounter(const KP_ReferenceCounter& other)
    : KP_Object(other), references_(other.references_.load()) {}

KP_ReferenceCounter& KP_ReferenceCounter::operator=(const KP_ReferenceCounter& other) {
    references_.store(other.references_.load());
    return *this;
}

void KP_ReferenceCounter::preRelease() {}

char* KP_ReferenceCounter::getClassName() {
    return kp::className("KP_ReferenceCounter");
}

int KP_ReferenceCounter::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_ReferenceCounter, KP_Object>(this, id, out);
}

void KP_ReferenceCounter::release() {
    kp::platform::happensBefore(this);
    std::int32_t count = references_.load(std::memory_order_relaxed);
    do {
        if (count <= 0) {
            return;
        }
    } while (!references_.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel,
                                                std::memory_order_relaxed));
    if (count == 1) {
        kp::platform::happensAfter(this);
        preRelease();
        KP_Object::release();
    }
}

int KP_ReferenceCounter::addRef() {
    references_.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

KP_ReferenceCounter* KP_ReferenceCounter::create() {
    return kp::createAndInit<KP_ReferenceCounter>();
}
