#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    const int length = std::snprintf(result, size, "%se", mode);
    return length > 0 && static_cast<std::size_t>(length) < size;
}

}  // namespace

std::FILE* openFile(const char* path, const char* mode) {
    char closing[16];
    if (!closeOnExecMode(mode, closing, sizeof closing)) {
        errno = EINVAL;
        return nullptr;
    }
    return std::fopen(path, closing);
}

std::FILE* openConfigurationFile(const char* path, const char* mode) {
    if (isDirectory(path)) {
        errno = EISDIR;  // Opening one for reading would succeed, and only reading would fail.
        return nullptr;
    }
    if (mode[0] != 'w' && mode[0] != 'a') {
        return openFile(path, mode);
    }
    // Create it first, with the permissions that it is to have; an existing file keeps its own.
    const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        return nullptr;
    }
    ::close(descriptor);
    return openFile(path, mode);
}

bool programFolder(char* folder, std::size_t size) {
    const ssize_t length = ::readlink("/proc/self/exe", folder, size);
    if (length <= 0 || static_cast<std::size_t>(length) >= size) {
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

bool localTime(std::time_t time, std::tm* local) {
    return ::localtime_r(&time, local) != nullptr;
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
