#include "control/signals.h"

#include <signal.h>
#include <unistd.h>

#include <ctime>

namespace kp::capture {

namespace {

sigset_t hangup() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void holdSignals() {
    // Every thread inherits this, so that no thread is interrupted, and nothing has to be done in
    // a handler.
    const sigset_t held = hangup();
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    for (const int number : {SIGALRM, SIGUSR1, SIGUSR2, SIGPIPE, SIGXFSZ})
        signal(number, SIG_IGN);
}

int Caretaker::doTask() {
    constexpr timespec kSecond{1, 0};
    const sigset_t awaited = hangup();
    const int number = sigtimedwait(&awaited, nullptr, &kSecond);
    if (isEnding_)
        return 0;
    if (number == SIGHUP)
        hungUp_();
    everySecond_();
    return 0;
}

// The signal that the thread waits for wakes it. One that is left over does nothing any more.
void Caretaker::end() {
    if (!isEnding_.exchange(true)) {
        stop();
        kill(getpid(), SIGHUP);
    }
    join(nullptr, 0);
}

}  // namespace kp::capture
