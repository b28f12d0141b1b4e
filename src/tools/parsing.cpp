#include "tools/parsing.h"

#include <cstring>

#include "kp/core/log.h"
#include "platform/platform.h"

namespace {

constexpr const char* kSqueezed = " \t\n";
constexpr const char* kLinearWhiteSpace = " \t\n\r";
constexpr const char* kBlank = " \t";
constexpr const char* kValueDelimiters = "{}\n";
constexpr int kConfigLine = 1024;

bool isIn(const char* set, char c) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

bool isLineBreak(char c) {
    return c == '\r' || c == '\n';
}

// Where the first line-break pair in [p, end) ends, or null.
const char* pastLineBreak(const char* p, const char* end) {
    for (; p < end && end - p >= 2; ++p) {
        if (isLineBreak(p[0]) && isLineBreak(p[1])) {
            return p + 2;
        }
    }
    return nullptr;
}

// The value text behind a key: blanks, at most one separator, blanks.
char* valueText(char* afterKey) {
    char* text = afterKey + std::strspn(afterKey, kSqueezed);
    if (*text == ':' || *text == '=') {
        ++text;
    }
    return text + std::strspn(text, kSqueezed);
}

// Removes the first run of blanks of a value; a '#' right behind it ends the value.
void cutComment(char* text) {
    char* blank = std::strchr(text, ' ');
    if (blank == nullptr) {
        return;
    }
    const char* rest = blank + std::strspn(blank, kSqueezed);
    if (*rest == '#') {
        *blank = '\0';
    } else {
        std::memmove(blank, rest, std::strlen(rest) + 1);
    }
}

void keepValue(KP_Tools::Configuration& entry, const char* text, std::size_t length) {
    std::memcpy(entry.value, text, length);
    entry.value[length] = '\0';
}

// Gives one value to its entry; false when it was too long to be kept.
bool takeValue(KP_Tools::Configuration& entry, char* text, void* userData) {
    constexpr std::size_t longest = sizeof entry.value - 1;
    if (entry.handler != nullptr) {
        const std::size_t length = std::strlen(text);
        keepValue(entry, text, length < longest ? length : longest);
        entry.handler(text, userData);
        return true;
    }
    cutComment(text);
    const std::size_t length = std::strlen(text);
    if (length > longest) {
        KP_Log::ret("readConfig: the value of %s has more than %d characters", entry.key,
                    static_cast<int>(longest));
        return false;
    }
    keepValue(entry, text, length);
    return true;
}

}  // namespace

const char* kp::detail::readKeyedFile(std::FILE* f, KP_Tools::Configuration* table,
                                      void* userData) {
    const char* refused = nullptr;
    char line[kConfigLine + 1];
    while (KP_Tools::getline(f, line, kConfigLine) != -1) {
        char* text = line + std::strspn(line, kSqueezed);
        if (*text == '\0' || *text == '#') {
            continue;
        }
        for (KP_Tools::Configuration* entry = table; entry->key != nullptr; ++entry) {
            const std::size_t keyLength = std::strlen(entry->key);
            if (std::strncmp(text, entry->key, keyLength) == 0) {
                if (!takeValue(*entry, valueText(text + keyLength), userData) &&
                    refused == nullptr) {
                    refused = entry->key;
                }
                break;
            }
        }
    }
    return refused;
}

char* KP_Tools::squeeze(char* src, char* dst, int count, const char* set) {
    if (set == nullptr) {
        set = kSqueezed;
    }
    char* const result = dst != nullptr ? dst : src;
    char* out = result;
    const char* in = src;
    int runs = 0;
    bool inRun = false;
    for (; *in != '\0'; ++in) {
        if (isIn(set, *in)) {
            inRun = false;
            continue;
        }
        if (!inRun) {
            inRun = true;
            if (++runs == count) {
                break;
            }
        }
        *out++ = *in;
    }
    // Only the end of the text, or the start of the last run to be looked for, comes here.
    std::memmove(out, in, std::strlen(in) + 1);
    return result;
}

int KP_Tools::getline(std::FILE* f, char* const buf, int max) {
    int length = 0;
    bool ended = false;
    const kp::platform::FileBytes bytes(f);
    while (length < max) {
        const int c = bytes.next();
        if (c == EOF) {
            ended = true;
            break;
        }
        if (c == '\n') {
            break;
        }
        buf[length++] = static_cast<char>(c);
    }
    buf[length] = '\0';
    return ended ? -1 : length;
}

void KP_Tools::readConfig(std::FILE* f, Configuration* table, void* userData) {
    kp::detail::readKeyedFile(f, table, userData);
}

char* KP_Tools::getConfigValue(std::FILE*, char* line) {
    char* name = line + std::strspn(line, kValueDelimiters);
    char* nameEnd = name + std::strcspn(name, kValueDelimiters);
    if (*nameEnd == '\0') {
        return nullptr;
    }
    *nameEnd++ = '\0';
    char* value = nameEnd + std::strspn(nameEnd, kValueDelimiters);
    if (*value == '\0') {
        return nullptr;
    }
    value[std::strcspn(value, kValueDelimiters)] = '\0';
    return value;
}

void KP_Tools::LWS_r(char** p) {
    if (p != nullptr && *p != nullptr) {
        *p += std::strspn(*p, kLinearWhiteSpace);
    }
}

void KP_Tools::LWS(char** p, const char* end) {
    if (p != nullptr && *p != nullptr) {
        while (*p < end && isIn(kLinearWhiteSpace, **p)) {
            ++*p;
        }
    }
}

void KP_Tools::RmWhiteSpace_r(char** p) {
    if (p != nullptr && *p != nullptr) {
        *p += std::strspn(*p, kBlank);
    }
}

int KP_Tools::ScanLine_r(const char* p, const char* end) {
    return pastLineBreak(p, end) != nullptr ? 1 : 0;
}

int KP_Tools::IgnoreLine_r(char** p, const char* end) {
    if (*p >= end) {
        return 0;
    }
    const char* past = pastLineBreak(*p, end);
    *p += (past != nullptr ? past : end) - *p;
    return past != nullptr ? 1 : 0;
}
