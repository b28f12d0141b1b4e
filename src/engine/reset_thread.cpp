#include "kp/engine/reset_thread.h"

#include "kp/core/log.h"
#include "platform/platform.h"

KP_ResetThread::KP_ResetThread() = default;

KP_ResetThread::~KP_ResetThread() {
    stop();
    join(nullptr, 0);
}

int KP_ResetThread::secondsToMidnight(const std::tm& local) {
    return ((24 - local.tm_hour) * 60 - local.tm_min) * 60 - local.tm_sec;
}

int KP_ResetThread::stop() {
    ++stops_;
    return KP_Thread::stop();
}

int KP_ResetThread::doTask() {
    const unsigned stops = stops_;
    const std::time_t begun = std::time(nullptr);
    std::tm local = {};
    // A time that the system cannot convert is looked at again in a day.
    kp::platform::localTime(begun, &local);
    sleep(secondsToMidnight(local));
    if (isRunning() == 0 || stops != stops_) {
        return 0;
    }
    char text[32];
    kp::platform::timeText(begun, text);
    KP_Log::debug("Reseting archive files at %s...", text);
    for (KP_Object* archive = first(); archive != nullptr; archive = next()) {
        archive->reset();
    }
    KP_Log::debug("...done reseting archive files at %s.\n", text);
    return 0;
}

char* KP_ResetThread::getClassName() {
    return kp::className("KP_ResetThread");
}

int KP_ResetThread::queryInterface(unsigned long id, void** out) {
    return kp::answerAs<KP_ResetThread, KP_Thread, KP_Runnable, KP_ReferenceCounter,
                        KP_List<KP_Object>, KP_Object>(this, id, out);
}

KP_ResetThread* KP_ResetThread::create() {
    return kp::createAndInit<KP_ResetThread>();
}
