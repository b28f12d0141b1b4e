#include <cctype>
#include <cstring>

#include "kp/tools/tools.h"

namespace {

constexpr const char* kContentTypes[] = {"text/", "audio/", "video/", "application/"};
constexpr const char* kValidPages[] = {"200", "201", "202", "203", "304"};
constexpr std::size_t kLongestLocation = 1022;

}  // namespace

int KP_Tools::isContentMIME(const char* contentType) {
    for (const char* type : kContentTypes) {
        if (std::strstr(contentType, type) != nullptr) {
            return 1;
        }
    }
    return 0;
}

int KP_Tools::isValidPage(const char* status) {
    for (const char* page : kValidPages) {
        if (std::strncmp(status, page, 3) == 0) {
            return 1;
        }
    }
    return 0;
}

int KP_Tools::isEntryPoint(char* excluded, const char* location, const char* contentType) {
    const int content = isContentMIME(contentType);
    if (*location == '\0' && content == 1) {
        return 1;
    }
    char lowered[kLongestLocation + 1];
    std::size_t length = 0;
    for (; length < kLongestLocation && location[length] != '\0'; ++length) {
        lowered[length] =
            static_cast<char>(std::tolower(static_cast<unsigned char>(location[length])));
    }
    lowered[length] = '\0';
    toLowerCase(excluded);
    return std::strstr(lowered, excluded) != nullptr ? 0 : content;
}

int KP_Tools::isAllSpace(const char* s) {
    for (; *s != '\0'; ++s) {
        const auto c = static_cast<unsigned char>(*s);
        if (c >= 128 || std::isspace(c) == 0) {
            return 0;
        }
    }
    return 1;
}
