#include "kp/wire/primitives.h"

#include <cstdio>
#include <cstring>

#include "kp/core/log.h"
#include "platform/platform.h"

namespace {

constexpr int kEmptySendsAtMost = 1000;

// Receives a value of N bytes, and never a byte beyond it.
template <int N>
bool receiveValue(int socket, const char* reader, unsigned char (&bytes)[N]) {
    for (int done = 0; done < N;) {
        const long received =
            kp::platform::receiveBytes(socket, bytes + done, static_cast<std::size_t>(N - done));
        if (received < 0) {
            KP_Log::ret("%s: error reading from stream", reader);
        }
        if (received <= 0) {
            return false;
        }
        done += static_cast<int>(received);
    }
    return true;
}

template <int N>
int sendValue(int socket, const char* writer, const unsigned char (&bytes)[N]) {
    if (kp::platform::sendBytes(socket, bytes, N) != N) {
        KP_Log::ret("%s: Data not sent properly.", writer);
        return -1;
    }
    return 0;
}

template <int N>
std::uint64_t bigEndian(const unsigned char (&bytes)[N]) {
    std::uint64_t value = 0;
    for (const unsigned char byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

// Fills the whole field; a field wider than the value gets zeros in front.
template <int N>
void putBigEndian(unsigned char (&bytes)[N], std::uint64_t value) {
    for (int i = N - 1; i >= 0; --i) {
        bytes[i] = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

// The common form of the readers: N bytes on the wire, of which Kept decides the low part.
template <int N, class Kept, class Value>
int readValue(int socket, const char* reader, Value* value) {
    *value = 0;
    unsigned char bytes[N];
    if (!receiveValue(socket, reader, bytes)) {
        return -1;
    }
    *value = static_cast<Kept>(bigEndian(bytes));
    return 0;
}

template <int N>
int writeValue(int socket, const char* writer, std::uint64_t value) {
    unsigned char bytes[N];
    putBigEndian(bytes, value);
    return sendValue(socket, writer, bytes);
}

}  // namespace

int readJ_Boolean(int socket, int* value) {
    return readValue<1, std::uint8_t>(socket, "readJ_Boolean", value);
}

int readJ_UInt8(int socket, unsigned char* value) {
    return readValue<2, std::uint8_t>(socket, "readJ_UInt8", value);
}

int readJ_SInt16(int socket, short* value) {
    return readValue<2, std::int16_t>(socket, "readJ_SInt16", value);
}

int readJ_UInt16(int socket, unsigned short* value) {
    return readValue<4, std::uint16_t>(socket, "readJ_UInt16", value);
}

int readJ_SInt32(int socket, long* value) {
    return readValue<4, std::int32_t>(socket, "readJ_SInt32", value);
}

int readJ_UInt32(int socket, unsigned long* value) {
    return readValue<8, std::uint32_t>(socket, "readJ_UInt32", value);
}

int readJ_SInt64(int socket, std::int64_t* value) {
    return readValue<8, std::int64_t>(socket, "readJ_SInt64", value);
}

int writeJ_Boolean(int socket, int value) {
    return writeJ_UInt8(socket, static_cast<unsigned char>(value));
}

int writeJ_UInt8(int socket, unsigned char value) {
    return writeValue<2>(socket, "writeJ_UInt8", value);
}

int writeJ_UInt16(int socket, unsigned short value) {
    return writeValue<4>(socket, "writeJ_UInt16", value);
}

int writeJ_SInt32(int socket, long value) {
    return writeValue<4>(socket, "writeJ_SInt32", static_cast<std::uint32_t>(value));
}

int writeJ_UInt32(int socket, unsigned long value) {
    return writeValue<8>(socket, "writeJ_UInt32", static_cast<std::uint32_t>(value));
}

int writeJ_SInt64(int socket, std::int64_t value) {
    return writeValue<8>(socket, "writeJ_SInt64", static_cast<std::uint64_t>(value));
}

int readJ_line(int socket, char* buffer, int size) {
    int length = 0;
    while (length + 1 < size) {
        char c = '\0';
        const long received = kp::platform::receiveBytes(socket, &c, 1);
        if (received < 0) {
            return -1;
        }
        if (received == 0 || c == '\n') {
            break;
        }
        buffer[length++] = c;
    }
    if (size > 0) {
        buffer[length] = '\0';
    }
    return length;
}

int readJ_n_chars(int socket, char* buffer, int n) {
    int length = 0;
    while (length < n) {
        const long received = kp::platform::receiveBytes(socket, buffer + length,
                                                         static_cast<std::size_t>(n - length));
        if (received < 0) {
            return -1;
        }
        if (received == 0) {
            break;
        }
        length += static_cast<int>(received);
    }
    return length;
}

int writeJ_n_chars(int socket, const char* buffer, int n) {
    int length = 0;
    int emptySends = 0;
    while (length < n) {
        const long sent =
            kp::platform::sendBytes(socket, buffer + length, static_cast<std::size_t>(n - length));
        emptySends = sent == 0 ? emptySends + 1 : 0;
        if (sent < 0 || emptySends >= kEmptySendsAtMost) {
            std::fputs("writeJ_n_chars: BEFORE\n", stdout);
            std::fflush(stdout);
            KP_Log::ret("writeJ_n_chars: Data not sent properly.");
            std::fputs("writeJ_n_chars: AFTER\n", stdout);
            std::fflush(stdout);
            return -1;
        }
        length += static_cast<int>(sent);
    }
    return length;
}
