#include <arpa/inet.h>
#include <fcntl.h>
#include <langinfo.h>
#include <linux/futex.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "kp/threads/recursive_lock.h"
#include "platform/platform.h"

namespace kp::platform {

// --- files and directories ---

bool isDirectory(const char* path) {
    struct stat status = {};
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

namespace {

// The mode with the C library's own letter for close-on-exec.
bool closeOnExecMode(const char* mode, char* result, std::size_t size) {
    const int letters = static_cast<int>(std::strcspn(mode, ","));
    const int length = std::snprintf(result, size, "%.*se%s", letters, mode, mode + letters);
    return length > 0 && static_cast<std::size_t>(length) < size;
}

}  // namespace

std::FILE* openFile(const char* path, const char* mode) {
    char closing[64];
    if (!closeOnExecMode(mode, closing, sizeof closing)) {
        errno = EINVAL;
        return nullptr;
    }
    if (isDirectory(path)) {
        errno = EISDIR;  // Opening one for reading would succeed, and only reading would fail.
        return nullptr;
    }
    return std::fopen(path, closing);
}

// The descriptor keeps its number and only points elsewhere: whoever writes at this moment has it.
bool reopenLog(std::FILE* file, const char* path) {
    const int fresh = ::open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fresh < 0) {
        return false;
    }
    ::flockfile(file);
    const bool isGood = ::dup3(fresh, ::fileno(file), O_CLOEXEC) >= 0;
    ::funlockfile(file);
    const int kept = errno;
    ::close(fresh);
    errno = kept;
    return isGood;
}

FileBytes::FileBytes(std::FILE* file) : file_(file) {
    ::flockfile(file);
}

FileBytes::~FileBytes() {
    ::funlockfile(file_);
}

std::FILE* openConfigurationFile(const char* path, const char* mode) {
    if (mode[0] != 'w' && mode[0] != 'a') {
        return openFile(path, mode);
    }
    const bool both = std::strchr(mode, '+') != nullptr;
    const bool fresh = std::strchr(mode, 'x') != nullptr;
    const int flags = (both ? O_RDWR : O_WRONLY) | O_CREAT | O_CLOEXEC | (fresh ? O_EXCL : 0) |
                      (mode[0] == 'w' ? O_TRUNC : O_APPEND);
    const int descriptor = ::open(path, flags, S_IRUSR | S_IWUSR);
    std::FILE* file = descriptor >= 0 ? ::fdopen(descriptor, mode) : nullptr;
    if (file == nullptr && descriptor >= 0) {
        ::close(descriptor);
    }
    return file;
}

bool programFolder(char* folder, std::size_t size) {
    const ssize_t length = ::readlink("/proc/self/exe", folder, size);
    if (length <= 0 || static_cast<std::size_t>(length) >= size) {
        folder[0] = '\0';  // What was read has no terminator.
        return false;
    }
    folder[length] = '\0';
    char* separator = std::strrchr(folder, '/');
    if (separator == nullptr) {
        return false;
    }
    *separator = '\0';
    return true;
}

const char* const kConfigurationFolder = "/../conf";

// --- time ---

namespace {

// Takes over the zone of the environment, or the machine's where that names none: localtime_r()
// does not do so by itself. A change of the machine's is seen within a second, since looking for
// one costs a call of the system.
void followZone() {
    static std::atomic<bool> wasNamed{true};
    static std::atomic<std::time_t> lookedAt{0};
    const bool isNamed = std::getenv("TZ") != nullptr;
    const std::time_t now = std::time(nullptr);
    if (wasNamed.exchange(isNamed) || isNamed || lookedAt.exchange(now) != now) {
        // The runtime has a lock of its own, which a thread sanitizer does not see.
        static kp::detail::RecursiveLock lock;
        const std::lock_guard<kp::detail::RecursiveLock> guard(lock);
        ::tzset();
    }
}

}  // namespace

bool localTime(std::time_t time, std::tm* local) {
    followZone();
    return ::localtime_r(&time, local) != nullptr;
}

void timeText(std::time_t time, char (&text)[32]) {
    followZone();
    if (::ctime_r(&time, text) == nullptr) {
        text[0] = '\0';
    }
}

void sleepSeconds(int seconds) {
    if (seconds <= 0) {
        ::sched_yield();
        return;
    }
    timespec left = {seconds, 0};
    while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

const char* decimalPoint() {
    return ::nl_langinfo(RADIXCHAR);
}

// --- waiting and waking ---

Deadline deadlineIn(int milliseconds) {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    Deadline deadline = {now.tv_sec + milliseconds / 1000,
                         now.tv_nsec + milliseconds % 1000 * 1000000L};
    if (deadline.nanoseconds >= 1000000000) {
        deadline.seconds += 1;
        deadline.nanoseconds -= 1000000000;
    }
    return deadline;
}

bool waitWhileEqual(const std::atomic<std::uint32_t>& word, std::uint32_t value,
                    const Deadline* deadline) {
    timespec until = {};
    if (deadline != nullptr) {
        until.tv_sec = deadline->seconds;
        until.tv_nsec = deadline->nanoseconds;
    }
    // The variant with a bit set is the one that takes an absolute time of the monotonic clock.
    const long result =
        ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, value,
                  deadline != nullptr ? &until : nullptr, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

bool wakeOne(const std::atomic<std::uint32_t>& word) {
    return ::syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1) >= 0 || errno == EFAULT;
}

void wakeAll(const std::atomic<std::uint32_t>& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, INT_MAX);
}

// --- threads ---

namespace {

// What a thread needs to break off its work from within a signal handler.
struct Work {
    sigjmp_buf leave;
    volatile sig_atomic_t allowed = 0;
    volatile sig_atomic_t wanted = 0;
};

thread_local Work* currentWork = nullptr;

// A signal of its own, since every other one may belong to the host.
int abandonSignal() {
    return SIGRTMIN + 7;
}

void onAbandon(int) {
    Work* work = currentWork;
    if (work == nullptr) {
        return;
    }
    work->wanted = 1;
    if (work->allowed != 0) {
        work->allowed = 0;
        ::siglongjmp(work->leave, 1);
    }
}

struct Start {
    void (*entry)(void*);
    void* argument;
};

void* runStart(void* memory) {
    const Start start = *static_cast<Start*>(memory);
    std::free(memory);
    sigset_t abandon;
    ::sigemptyset(&abandon);
    ::sigaddset(&abandon, abandonSignal());
    ::pthread_sigmask(SIG_UNBLOCK, &abandon, nullptr);
    start.entry(start.argument);
    return nullptr;
}

}  // namespace

bool startThread(void (*entry)(void*), void* argument) {
    auto* start = static_cast<Start*>(std::malloc(sizeof(Start)));
    if (start == nullptr) {
        return false;
    }
    *start = {entry, argument};
    pthread_t thread = {};
    if (::pthread_create(&thread, nullptr, runStart, start) != 0) {
        std::free(start);
        return false;
    }
    ::pthread_detach(thread);
    return true;
}

ThreadId currentThread() {
    return static_cast<ThreadId>(::pthread_self());
}

bool runWork(void (*work)(void*), void* argument) {
    Work frame;
    if (sigsetjmp(frame.leave, 1) != 0) {
        currentWork = nullptr;
        return false;
    }
    currentWork = &frame;
    work(argument);
    currentWork = nullptr;
    return true;
}

bool setAbandonable(bool allowed) {
    Work* work = currentWork;
    if (work == nullptr) {
        return false;
    }
    const bool before = work->allowed != 0;
    work->allowed = allowed ? 1 : 0;
    if (allowed && work->wanted != 0) {
        work->allowed = 0;
        ::siglongjmp(work->leave, 1);
    }
    return before;
}

void abandonWork(ThreadId thread) {
    // Installed when first needed: a host that stops nothing by force keeps its signals untouched.
    struct sigaction action = {};
    action.sa_handler = onAbandon;
    ::sigfillset(&action.sa_mask);
    ::sigaction(abandonSignal(), &action, nullptr);
    ::pthread_kill(static_cast<pthread_t>(thread), abandonSignal());
}

bool isAbandonWanted() {
    const Work* const work = currentWork;
    return work != nullptr && work->wanted != 0;
}

// --- addresses and names ---

std::uint32_t parseAddress(const char* text) {
    return ntohl(::inet_addr(text));
}

bool hostName(std::uint32_t address, char* name, std::size_t size) {
    sockaddr_in host = {};
    host.sin_family = AF_INET;
    host.sin_addr.s_addr = htonl(address);
    return ::getnameinfo(reinterpret_cast<const sockaddr*>(&host), sizeof host, name,
                         static_cast<socklen_t>(size), nullptr, 0, NI_NAMEREQD) == 0;
}

// --- sockets ---

int createTcpSocket() {
    return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int setReuseAddress(int socket) {
    const int on = 1;
    return ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

int bindToPort(int socket, std::uint16_t port) {
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = htons(port);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any);
}

void closeSocket(int socket) {
    ::close(socket);
}

int lastSocketError() {
    switch (errno) {
        case EINTR:
            return 10004;
        case EBADF:
            return 10009;
        case EACCES:
        case EPERM:
            return 10013;
        case EFAULT:
            return 10014;
        case EINVAL:
            return 10022;
        case EMFILE:
        case ENFILE:
            return 10024;
        case EAGAIN:
            return 10035;
        case EINPROGRESS:
            return 10036;
        case EALREADY:
            return 10037;
        case ENOTSOCK:
            return 10038;
        case EDESTADDRREQ:
            return 10039;
        case EMSGSIZE:
            return 10040;
        case EPROTOTYPE:
            return 10041;
        case ENOPROTOOPT:
            return 10042;
        case EPROTONOSUPPORT:
            return 10043;
        case ESOCKTNOSUPPORT:
            return 10044;
        case EOPNOTSUPP:
            return 10045;
        case EPFNOSUPPORT:
            return 10046;
        case EAFNOSUPPORT:
            return 10047;
        case EADDRINUSE:
            return 10048;
        case EADDRNOTAVAIL:
            return 10049;
        case ENETDOWN:
            return 10050;
        case ENETUNREACH:
            return 10051;
        case ENETRESET:
            return 10052;
        case ECONNABORTED:
        case EPIPE:
            return 10053;
        case ECONNRESET:
            return 10054;
        case ENOBUFS:
        case ENOMEM:
            return 10055;
        case EISCONN:
            return 10056;
        case ENOTCONN:
            return 10057;
        case ESHUTDOWN:
            return 10058;
        case ETOOMANYREFS:
            return 10059;
        case ETIMEDOUT:
            return 10060;
        case ECONNREFUSED:
            return 10061;
        case ELOOP:
            return 10062;
        case ENAMETOOLONG:
            return 10063;
        case EHOSTDOWN:
            return 10064;
        case EHOSTUNREACH:
            return 10065;
        case ENOTEMPTY:
            return 10066;
        case EUSERS:
            return 10068;
        case EDQUOT:
            return 10069;
        case ESTALE:
            return 10070;
        case EREMOTE:
            return 10071;
        default:
            return 0;
    }
}

long receiveBytes(int socket, void* buffer, std::size_t size) {
    for (;;) {
        const ssize_t received = ::recv(socket, buffer, size, 0);
        if (received >= 0 || errno != EINTR) {
            return static_cast<long>(received);
        }
    }
}

long sendBytes(int socket, const void* buffer, std::size_t size) {
    for (;;) {
        const ssize_t sent = ::send(socket, buffer, size, MSG_NOSIGNAL);
        if (sent >= 0 || errno != EINTR) {
            return static_cast<long>(sent);
        }
    }
}

int controlSocket(int socket, int command) {
    return ::ioctl(socket, static_cast<unsigned long>(command), nullptr);
}

}  // namespace kp::platform
