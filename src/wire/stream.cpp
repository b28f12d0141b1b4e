#include "kp/wire/stream.h"

KP_Stream::~KP_Stream() = default;

char* KP_Stream::getClassName() {
    return kp::className("KP_Stream");
}

int KP_Stream::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_Stream>(this, id, out);
}
