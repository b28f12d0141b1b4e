// To be loaded before the C library (LD_PRELOAD): the host counted.test is 10.0.0.5, and each look for
// it adds a line to the file that KP_COUNTED_NAMES names.
#include <dlfcn.h>
#include <netdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    if (node == nullptr || std::strcmp(node, "counted.test") != 0)
        return real(node, service, hints, result);
    const char* const report = std::getenv("KP_COUNTED_NAMES");
    if (std::FILE* const file = report != nullptr ? std::fopen(report, "a") : nullptr) {
        std::fputs("looked up\n", file);
        std::fclose(file);
    }
    return real("10.0.0.5", service, hints, result);
}
