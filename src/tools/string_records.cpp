// Binary string records, opening files, and the search for a byte pattern.
#include <cstdlib>
#include <cstring>

#include "core/byte_search.h"
#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

namespace {

constexpr unsigned kLongestAllocated = 2048;
constexpr std::size_t kLongestRecord = 65535;

bool readLength(std::FILE* f, unsigned* length) {
    unsigned char bytes[2];
    if (std::fread(bytes, 1, sizeof bytes, f) != sizeof bytes) {
        return false;
    }
    *length = bytes[0] | static_cast<unsigned>(bytes[1]) << 8;
    return true;
}

}  // namespace

int KP_Tools::readStringNoMalloc(char* buf, int size, std::FILE* f) {
    unsigned length = 0;
    if (!readLength(f, &length)) {
        return -1;
    }
    if (length > static_cast<unsigned>(size)) {
        KP_Log::debug("archiving_readStringNoMalloc: no memory for string");
        return -1;
    }
    const std::size_t got = std::fread(buf, 1, length, f);
    buf[got] = '\0';
    return got == length ? 0 : -1;
}

int KP_Tools::readStringMalloc(char** out, std::FILE* f) {
    unsigned length = 0;
    if (!readLength(f, &length)) {
        return -1;
    }
    if (length > kLongestAllocated) {
        KP_Log::debug("archiving_readStringMalloc: excesively long string (> 2048 bytes)");
        return -1;
    }
    *out = nullptr;
    if (length == 0) {
        return 0;
    }
    // Zeroed, so that a text that is cut off is followed by nothing that was never read.
    char* text = static_cast<char*>(std::calloc(length + 1, 1));
    if (text == nullptr) {
        KP_Log::debug("archiving_readStringMalloc: no memory");
        return -1;
    }
    *out = text;
    return std::fread(text, 1, length, f) == length ? 0 : -1;
}

int KP_Tools::writeString(const char* s, std::FILE* f) {
    const std::size_t length = std::strlen(s);
    if (length > kLongestRecord) {
        return -1;
    }
    const unsigned char bytes[2] = {static_cast<unsigned char>(length & 0xFF),
                                    static_cast<unsigned char>(length >> 8)};
    if (std::fwrite(bytes, 1, sizeof bytes, f) != sizeof bytes) {
        return -1;
    }
    return std::fwrite(s, 1, length, f) == length ? 0 : -1;
}

std::FILE* KP_Tools::openFile(const char* path, const char* mode) {
    return kp::platform::openFile(path, mode);
}

int KP_Tools::findPattern(const char* pattern, int patternLength, const char* buffer,
                          int bufferLength, bool, int start) {
    if (pattern == nullptr || buffer == nullptr || patternLength < 1 || bufferLength < 1 ||
        start < 0 || start >= bufferLength || patternLength > bufferLength - start) {
        return -1;
    }
    const char* found =
        kp::detail::findBytes(buffer + start, static_cast<std::size_t>(bufferLength - start),
                              pattern, static_cast<std::size_t>(patternLength));
    return found != nullptr ? static_cast<int>(found - buffer) : -1;
}
