// Addresses, time, waiting, characters, sorting, and two operations on devices and sockets.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kp/core/compare.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

namespace {

constexpr std::size_t kAddressSize = 16;
constexpr std::size_t kHostNameSize = 256;

int compareEntries(const void* first, const void* second) {
    return kp::detail::compareObjects(*static_cast<KP_Object* const*>(first),
                                      *static_cast<KP_Object* const*>(second), 0);
}

}  // namespace

void KP_Tools::IPAddressString(unsigned long address, char* dst) {
    const auto bits = static_cast<std::uint32_t>(address);
    std::snprintf(dst, kAddressSize, "%d.%d.%d.%d", static_cast<int>(bits >> 24),
                  static_cast<int>(bits >> 16 & 0xFF), static_cast<int>(bits >> 8 & 0xFF),
                  static_cast<int>(bits & 0xFF));
}

void KP_Tools::resolveIP(const unsigned long* address, char* dst) {
    dst[0] = '\0';
    if (kp::platform::hostName(static_cast<std::uint32_t>(*address), dst, kHostNameSize)) {
        toLowerCase(dst);
    }
    if (dst[0] == '\0') {
        IPAddressString(*address, dst);
    }
}

long KP_Tools::timeSubtract(timeval* a, timeval* b) {
    auto seconds = static_cast<std::int64_t>(a->tv_sec) - static_cast<std::int64_t>(b->tv_sec);
    auto microseconds =
        static_cast<std::int64_t>(a->tv_usec) - static_cast<std::int64_t>(b->tv_usec);
    if (microseconds < 0) {
        seconds -= 1;
        microseconds += 1000000;
    }
    // Unsigned, because it is told to wrap at 32 bits.
    const std::uint32_t difference =
        static_cast<std::uint32_t>(seconds) * 1000000U + static_cast<std::uint32_t>(microseconds);
    return static_cast<std::int32_t>(difference);
}

void KP_Tools::gettimeofday(timeval* tv, void*) {
    tv->tv_sec = static_cast<decltype(tv->tv_sec)>(std::time(nullptr));
    tv->tv_usec = 0;
}

void KP_Tools::sleep(int seconds) {
    kp::platform::sleepSeconds(seconds);
}

void KP_Tools::toLowerCase(char* s) {
    for (; *s != '\0'; ++s) {
        *s = static_cast<char>(std::tolower(static_cast<unsigned char>(*s)));
    }
}

void KP_Tools::toUpperCase(char* s) {
    for (; *s != '\0'; ++s) {
        *s = static_cast<char>(std::toupper(static_cast<unsigned char>(*s)));
    }
}

char* KP_Tools::strdup(const char* s) {
    const std::size_t size = std::strlen(s) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) {
        std::memcpy(copy, s, size);
    }
    return copy;
}

char* KP_Tools::strtok(char* s, const char* delimiters, char**) {
    // The runtime's tokenizer shares one position among all threads; this one does not.
    thread_local char* position = nullptr;
    if (s == nullptr) {
        s = position;
    }
    if (s == nullptr) {
        return nullptr;
    }
    char* token = s + std::strspn(s, delimiters);
    if (*token == '\0') {
        position = nullptr;
        return nullptr;
    }
    char* end = token + std::strcspn(token, delimiters);
    position = *end != '\0' ? end + 1 : nullptr;
    *end = '\0';
    return token;
}

void KP_Tools::sort(void* base, int n, int (*comparison)(const void*, const void*)) {
    if (n > 1) {
        std::qsort(base, static_cast<std::size_t>(n), sizeof(KP_Object*),
                   comparison != nullptr ? comparison : compareEntries);
    }
}

int KP_Tools::testPromiscEthernet(const char*) {
    return 1;
}

int KP_Tools::strioctl(int socket, int command, int, char*) {
    kp::platform::controlSocket(socket, command);
    return 0;
}
