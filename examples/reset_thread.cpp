// A day of visits that is closed at midnight by a reset thread. Every line of standard input is a
// visit; an empty line, or the end of the input, ends the program.
#include <kp/kp.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <string>

namespace {

// What is reset at midnight, on the reset thread, while the main thread goes on counting.
class Day : public KP_Object {
public:
    void visit() { ++visits_; }
    long visits() const { return visits_; }

    int reset() override {
        std::printf("the day is closed with %ld visits\n", visits_.exchange(0));
        std::fflush(stdout);
        return 0;
    }

private:
    std::atomic<long> visits_{0};
};

}  // namespace

int main() {
    Day day;  // Before the thread, which ends first: the list owns nothing.
    KP_ResetThread midnight;
    midnight.append(&day);

    const std::time_t now = std::time(nullptr);
    const std::tm* const local = std::localtime(&now);
    if (local == nullptr || midnight.start() != 0) {
        std::fputs("reset_thread: no local time, or no thread\n", stderr);
        return 1;
    }
    std::printf("%d seconds to midnight\n", KP_ResetThread::secondsToMidnight(*local));
    std::fflush(stdout);

    for (std::string line; std::getline(std::cin, line) && !line.empty();) {
        day.visit();
    }
    // In this order: join() alone wakes the thread, which would take that for midnight.
    midnight.stop();
    midnight.join(nullptr, 0);
    std::printf("%ld visits since midnight or the start\n", day.visits());
    return 0;
}
