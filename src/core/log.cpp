#include "kp/core/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "kp/tools/tools.h"
#include "platform/platform.h"

namespace {

constexpr std::size_t kPathSize = 1024;
constexpr std::size_t kErrorTextSize = 200;
constexpr std::size_t kTimeTextSize = 60;
constexpr std::size_t kLineSize = 1024;

struct LogState {
    char* name = nullptr;
    char* path = nullptr;
    int level = 0;
    KP_ExitHandler* handler = nullptr;
    std::FILE* file = nullptr;
    char errorText[kErrorTextSize] = {};
};

LogState state;

KP_PRINTF(2, 0)
void writeText(std::FILE* target, const char* format, std::va_list arguments) {
    std::vfprintf(target, format, arguments);
    std::fflush(target);
}

// Lines of several threads must not mix, so a line goes out in one write. A line too long for the
// buffer takes three; that it may be torn is better than that it may be lost for want of memory.
KP_PRINTF(3, 0)
void writeLine(std::FILE* target, const char* time, const char* format, std::va_list arguments) {
    char line[kLineSize];
    const int prefix = std::snprintf(line, sizeof line, "%s - ", time);
    std::va_list again;
    va_copy(again, arguments);
    const int text = std::vsnprintf(line + prefix, sizeof line - prefix, format, again);
    va_end(again);
    const std::size_t length = static_cast<std::size_t>(prefix) + (text > 0 ? text : 0);
    if (length + 1 < sizeof line) {
        line[length] = '\n';
        std::fwrite(line, 1, length + 1, target);
    } else {
        std::fprintf(target, "%s - ", time);
        std::vfprintf(target, format, arguments);
        std::fputc('\n', target);
    }
    std::fflush(target);
}

// Joins the pieces of a path in a buffer of kPathSize characters; false when it does not fit.
bool joinPath(char* path, const char* directory, const char* separator, const char* name,
              const char* suffix) {
    const int length =
        std::snprintf(path, kPathSize, "%s%s%s%s", directory, separator, name, suffix);
    return length >= 0 && static_cast<std::size_t>(length) < kPathSize;
}

}  // namespace

void KP_Log::init(const char* name, int level, KP_ExitHandler* handler) {
    reset();
    if (name == nullptr) {
        name = "";
    }
    state.name = KP_Tools::strdup(name);

    char directory[kPathSize];
    if (!joinPath(directory, KP_Tools::getInstallDir(), "", "/logs", "") ||
        !kp::platform::isDirectory(directory)) {
        quit("init: %s can't open directory", directory);
    }
    char path[kPathSize];
    const bool fits = joinPath(path, directory, "/", name, ".log");
    state.file = fits ? kp::platform::openFile(path, "a+") : nullptr;
    if (state.file == nullptr) {
        quit("init: %s can't open log file", path);
    }
    state.path = KP_Tools::strdup(path);
    state.level = level;
    state.handler = handler;
    kp::platform::setSignalLog(state.file);
}

int KP_Log::reopen() {
    if (state.file == nullptr || state.path == nullptr) {
        errno = EBADF;
        return -1;
    }
    if (!kp::platform::reopenLog(state.file, state.path)) {
        return -1;
    }
    kp::platform::setSignalLog(state.file);
    return 0;
}

int KP_Log::reset() {
    std::free(state.name);
    state.name = nullptr;
    std::free(state.path);
    state.path = nullptr;
    state.level = 0;
    state.handler = nullptr;
    if (state.file != nullptr) {
        kp::platform::setSignalLog(nullptr);
        std::fclose(state.file);
        state.file = nullptr;
    }
    return 0;
}

std::FILE* KP_Log::getFD() {
    return state.file != nullptr ? state.file : stdout;
}

char* KP_Log::sys_err_str() {
    if (errno != 0) {
        std::snprintf(state.errorText, sizeof state.errorText, "(errno = %d)", errno);
    } else {
        state.errorText[0] = '\0';
    }
    return state.errorText;
}

void KP_Log::quit(const char* format, ...) {
    if (state.file != nullptr) {
        std::va_list arguments;
        va_start(arguments, format);
        writeText(state.file, format, arguments);
        va_end(arguments);
    }
    std::exit(1);
}

void KP_Log::debugLevel(std::FILE* file, int level, const char* format, ...) {
    std::FILE* target = file != nullptr ? file : state.file;
    if (target != nullptr && state.level >= level) {
        std::va_list arguments;
        va_start(arguments, format);
        writeText(target, format, arguments);
        va_end(arguments);
    }
}

void KP_Log::debug(const char* format, ...) {
    if (state.file != nullptr && state.level != 0) {
        std::va_list arguments;
        va_start(arguments, format);
        writeText(state.file, format, arguments);
        va_end(arguments);
    }
}

void KP_Log::log(const char* format, ...) {
    if (state.file != nullptr) {
        std::va_list arguments;
        va_start(arguments, format);
        writeText(state.file, format, arguments);
        va_end(arguments);
    }
}

void KP_Log::flog(std::FILE* file, const char* format, ...) {
    std::FILE* target = file != nullptr ? file : state.file;
    if (target != nullptr) {
        std::va_list arguments;
        va_start(arguments, format);
        writeText(target, format, arguments);
        va_end(arguments);
    }
}

void KP_Log::ret(const char* format, ...) {
    if (state.file != nullptr) {
        char time[kTimeTextSize];
        KP_Tools::getTimeString1(time);
        std::va_list arguments;
        va_start(arguments, format);
        writeLine(state.file, time, format, arguments);
        va_end(arguments);
    }
}
