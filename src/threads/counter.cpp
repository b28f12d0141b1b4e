#include "kp/threads/counter.h"

KP_Counter::~KP_Counter() = default;

unsigned long KP_Counter::getCount() {
    return count_.load();
}

void KP_Counter::increment(int by) {
    count_.fetch_add(static_cast<std::uint32_t>(by));
}

void KP_Counter::decrement(int by) {
    count_.fetch_sub(static_cast<std::uint32_t>(by));
}

char* KP_Counter::getClassName() {
    return kp::className("KP_Counter");
}

int KP_Counter::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Counter, KP_Object>(this, id, out);
}
