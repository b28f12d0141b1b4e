#include "kp/threads/counter.h"

#include "platform/platform.h"

KP_Counter::~KP_Counter() = default;

unsigned long KP_Counter::getCount() {
    const std::uint32_t count = count_.load();
    kp::platform::happensAfter(this);
    return count;
}

void KP_Counter::increment(int by) {
    kp::platform::happensBefore(this);
    count_.fetch_add(static_cast<std::uint32_t>(by));
}

void KP_Counter::decrement(int by) {
    kp::platform::happensBefore(this);
    count_.fetch_sub(static_cast<std::uint32_t>(by));
}

char* KP_Counter::getClassName() {
    return kp::className("KP_Counter");
}

int KP_Counter::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Counter, KP_Object>(this, id, out);
}
