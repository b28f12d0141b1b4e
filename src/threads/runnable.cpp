#include "kp/threads/runnable.h"

int KP_Runnable::start() {
    return 0;
}

int KP_Runnable::stop() {
    return 0;
}

int KP_Runnable::join(KP_Mutex*, int) {
    return 0;
}

int KP_Runnable::isRunning() {
    return 0;
}

char* KP_Runnable::getClassName() {
    return kp::className("KP_Runnable");
}

int KP_Runnable::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Runnable, KP_Object>(this, id, out);
}
