// Numbers, letters, cleaning, hexadecimal digits, files and sockets.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "kp/core/log.h"
#include "kp/text/string.h"
#include "kp/tools/tools.h"
#include "kp/wire/primitives.h"
#include "platform/platform.h"

namespace {

constexpr int kLongestLine = 2048;
constexpr int kDecimals = 6;
constexpr std::size_t kLongestInteger = 20;
// Sign, digits, decimals, and a decimal point that a locale writes in several bytes.
constexpr std::size_t kLongestDouble =
    1 + std::numeric_limits<double>::max_exponent10 + 1 + kDecimals + 16;

enum StpcvtFlags {
    kRemoveSpaces = 1,
    kTrimFront = 2,
    kTrimEnd = 4,
    kSqueeze = 8,
    kKeepQuoted = 16,
    kToUpper = 32,
    kToLower = 64,
    kRemoveControls = 128
};

enum class Kind { kSpace, kControl, kOrdinary };

Kind kindOf(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 128) {
        return Kind::kOrdinary;
    }
    if (std::iscntrl(byte) != 0) {
        return Kind::kControl;
    }
    return std::isspace(byte) != 0 ? Kind::kSpace : Kind::kOrdinary;
}

char inCase(char c, int flags) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 128 || (flags & (kToUpper | kToLower)) == 0) {
        return c;
    }
    return static_cast<char>((flags & kToLower) != 0 ? std::tolower(byte) : std::toupper(byte));
}

// Cleans the text at @p in to the front of the same memory; returns where the result ends.
char* clean(char* const start, int flags) {
    char* out = start;
    char quote = '\0';
    bool seen = false;
    bool inRun = false;
    for (const char* in = start; *in != '\0'; ++in) {
        const char c = *in;
        if (quote != '\0') {
            *out++ = c;
            quote = c == quote ? '\0' : quote;
            continue;
        }
        if ((flags & kKeepQuoted) != 0 && (c == '\'' || c == '"')) {
            *out++ = c;
            quote = c;
            seen = true;
            inRun = false;
            continue;
        }
        const Kind kind = kindOf(c);
        if (kind == Kind::kSpace) {
            const bool dropped = (flags & kRemoveSpaces) != 0 ||
                                 ((flags & kTrimFront) != 0 && !seen) ||
                                 ((flags & kSqueeze) != 0 && inRun);
            if (!dropped) {
                *out++ = (flags & kSqueeze) != 0 ? ' ' : c;
                inRun = true;
            }
            continue;
        }
        seen = true;
        inRun = false;
        if (kind == Kind::kControl && (flags & kRemoveControls) != 0) {
            continue;
        }
        *out++ = kind == Kind::kControl ? c : inCase(c, flags);
    }
    if ((flags & kTrimEnd) != 0) {
        while (out > start && kindOf(out[-1]) == Kind::kSpace) {
            --out;
        }
    }
    return out;
}

void writeHex(const unsigned char* bytes, std::size_t count, char* digits) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < count; ++i) {
        digits[2 * i] = kDigits[bytes[i] >> 4];
        digits[2 * i + 1] = kDigits[bytes[i] & 0xF];
    }
}

}  // namespace

// --- numbers ---

template <class Number>
KP_String& KP_String::appendInteger(Number value) {
    if (std::size_t{length_} + kLongestInteger < capacity_) {
        const auto result = std::to_chars(buffer_ + length_, buffer_ + capacity_ - 1, value);
        setLength(static_cast<std::size_t>(result.ptr - buffer_));
        return *this;
    }
    char digits[kLongestInteger];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    append(digits, static_cast<std::size_t>(result.ptr - digits));
    return *this;
}

KP_String& KP_String::operator<<(unsigned long value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(unsigned short value) {
    return appendInteger(static_cast<unsigned int>(value));
}

KP_String& KP_String::operator<<(long value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(short value) {
    return appendInteger(static_cast<int>(value));
}

KP_String& KP_String::operator<<(int value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(unsigned int value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(long long value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(unsigned long long value) {
    return appendInteger(value);
}

KP_String& KP_String::operator<<(double value) {
    char digits[kLongestDouble];
    // The runtime goes by the thread's locale; where that has a plain point there is a faster way.
    const char* const point = kp::platform::decimalPoint();
    if (point[0] == '.' && point[1] == '\0') {
        const auto result = std::to_chars(digits, digits + sizeof digits, value,
                                          std::chars_format::fixed, kDecimals);
        append(digits, static_cast<std::size_t>(result.ptr - digits));
    } else {
        const int length = std::snprintf(digits, sizeof digits, "%f", value);
        append(digits, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof digits - 1));
    }
    return *this;
}

KP_String& KP_String::operator<<(float value) {
    return *this << static_cast<double>(value);
}

KP_String& KP_String::operator<<(char c) {
    append(&c, 1);
    return *this;
}

// --- in place ---

void KP_String::toLower() {
    KP_Tools::toLowerCase(ownText());
}

void KP_String::toUpper() {
    KP_Tools::toUpperCase(ownText());
}

char* KP_String::stpcvt(int flags) {
    char* const start = ownText();
    setLength(static_cast<std::size_t>(clean(start, flags) - start));
    return start;
}

void KP_String::hexify(const void* data, unsigned long n) {
    if (data == nullptr || n == 0) {
        makeEmpty();
        return;
    }
    // Beside the old text, which the data may be part of.
    KP_String digits(NoText{});
    const std::size_t room = n <= UINT32_MAX / 2 ? 2 * std::size_t{n} : SIZE_MAX;
    digits.resize(room);
    writeHex(static_cast<const unsigned char*>(data), n, digits.buffer_);
    digits.setLength(room);
    exchangeText(digits);
}

// --- files and sockets ---

int KP_String::print(std::FILE* file) {
    KP_Log::flog(file, "value\t\t: %s\n", text());
    return 0;
}

int KP_String::write(std::FILE* file) {
    if (file != nullptr) {
        std::fputs(text(), file);
    }
    return 0;
}

int KP_String::read(std::FILE* file) {
    char line[kLongestLine + 1] = "";
    if (file != nullptr) {
        KP_Tools::getline(file, line, kLongestLine);
    }
    *this = KP_Tools::getConfigValue(file, line);
    return 0;
}

int KP_String::writeJ(int socket) {
    for (std::size_t sent = 0; sent < length_;) {
        const int count = static_cast<int>(std::min<std::size_t>(length_ - sent, INT_MAX));
        if (writeJ_n_chars(socket, buffer_ + sent, count) != count) {
            return -1;
        }
        sent += static_cast<std::size_t>(count);
    }
    return writeJ_n_chars(socket, "\n", 1) == 1 ? 0 : -1;
}

int KP_String::readJ(int socket) {
    char line[kLongestLine + 1];
    if (readJ_line(socket, line, sizeof line) < 0) {
        return -1;
    }
    *this = static_cast<const char*>(line);
    return 0;
}
