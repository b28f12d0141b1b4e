#include "kp/engine/message_handler.h"

template class KP_Link<KP_MessageHandler>;
template class KP_List<KP_MessageHandler>;

KP_MessageHandler::KP_MessageHandler() = default;

KP_MessageHandler::KP_MessageHandler(const KP_MessageHandler& other) : KP_Object(other) {}

KP_MessageHandler::~KP_MessageHandler() = default;

int KP_MessageHandler::handleMessage(KP_Message* message) {
    return sendMessage(message);
}

int KP_MessageHandler::sendMessage(KP_Message* message) {
    for (KP_MessageHandler* handler = handlers_.first(); handler != nullptr;
         handler = handlers_.next()) {
        const int answer = handler->handleMessage(message);
        if (answer != 0) {
            return answer;
        }
    }
    return 0;
}

int KP_MessageHandler::addHandler(KP_MessageHandler* handler) {
    return handlers_.append(handler);
}

int KP_MessageHandler::removeHandler(KP_MessageHandler* handler) {
    return handlers_.remove(handler);
}

char* KP_MessageHandler::getClassName() {
    return kp::className("KP_MessageHandler");
}

int KP_MessageHandler::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_MessageHandler>(this, id, out);
}
