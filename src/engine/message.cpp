#include "kp/engine/message.h"

KP_Message::KP_Message(const char* text, KP_Object* source) : source_(source), message_(text, 0) {}

KP_Message::~KP_Message() = default;

int KP_Message::setSource(KP_Object* source) {
    source_ = source;
    return 0;
}

KP_Object* KP_Message::getSource() {
    return source_;
}

int KP_Message::setMessage(const char* text) {
    message_ = text;
    return 0;
}

const char* KP_Message::getMessage() {
    return message_;
}
