#include "control/log_line.h"

#include <sys/stat.h>
#include <unistd.h>

#include "common/printable.h"
#include "kp/core/log.h"

namespace kp::capture {

// A line that another thread has begun just now and means to go on with is cut in two at worst; the
// lines of the engine and nearly all of the library are written in one piece.
void endLogLine() {
    const int log = fileno(KP_Log::getFD());
    struct stat status {};
    char last = '\n';
    if (fstat(log, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
        pread(log, &last, 1, status.st_size - 1) == 1 && last != '\n') {
        KP_Log::log("\n");
    }
}

void logLine(const std::string& text) {
    endLogLine();
    KP_Log::ret("kp-capture: %s", programs::printable(text).c_str());
}

}  // namespace kp::capture
