// The configuration as a message between engine and front end.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kp/config/config.h"
#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "kp/wire/primitives.h"
#include "platform/platform.h"
#include "tools/parsing.h"

namespace {

constexpr int kLine = 2048;
constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

using MimeType = KP_Config::MimeType;

// Sends the text of a field, whether it has an end or not, and a line feed in one piece; 0 or -1.
template <std::size_t Size>
int sendText(int socket, const char (&field)[Size]) {
    char line[kLine];
    const int length = std::snprintf(line, sizeof line, "%.*s\n", static_cast<int>(Size), field);
    return length < kLine && writeJ_n_chars(socket, line, length) == length ? 0 : -1;
}

int sendAddress(int socket, std::uint32_t address) {
    char dotted[16];
    KP_Tools::IPAddressString(address, dotted);
    return sendText(socket, dotted);
}

int sendMimeType(int socket, const MimeType& mime) {
    const int postfixes = std::min<int>(mime.numOfPostfixes, KP_Config::kMaxPostfixes);
    if (sendText(socket, mime.type) != 0 ||
        writeJ_UInt8(socket, static_cast<unsigned char>(postfixes)) != 0) {
        return -1;
    }
    for (int i = 0; i < postfixes; ++i) {
        if (sendText(socket, mime.postfixes[i]) != 0) {
            return -1;
        }
    }
    return 0;
}

// Receives a line, a byte at a time since what follows it belongs to others. False when the
// connection fails or ends before the line does: half an address can be an address.
bool receiveLine(int socket, char (&line)[kLine]) {
    for (int length = 0; length < kLine; ++length) {
        if (kp::platform::receiveBytes(socket, line + length, 1) != 1) {
            return false;
        }
        if (line[length] == '\n') {
            line[length] = '\0';
            return true;
        }
    }
    KP_Log::ret("hcommand_SET_CONFIG: a line has more than %d characters", kLine - 1);
    return false;
}

// Receives a line into a field and keeps what fits.
template <std::size_t Size>
int receiveCut(int socket, char (&field)[Size]) {
    char line[kLine] = {};
    if (!receiveLine(socket, line)) {
        return -1;
    }
    line[Size - 1] = '\0';
    std::memcpy(field, line, Size);
    return 0;
}

// Receives a line into a field that would mean something else if it were cut.
template <std::size_t Size>
int receiveField(int socket, char (&field)[Size]) {
    char line[kLine] = {};
    if (!receiveLine(socket, line)) {
        return -1;
    }
    if (std::strlen(line) >= Size) {
        KP_Log::ret("hcommand_SET_CONFIG: a field has more than %d characters",
                    static_cast<int>(Size - 1));
        return -1;
    }
    std::memcpy(field, line, Size);
    return 0;
}

int receiveNumber(int socket, std::uint32_t* number) {
    unsigned long value = 0;
    if (readJ_UInt32(socket, &value) != 0) {
        return -1;  // What did not come changes nothing.
    }
    *number = static_cast<std::uint32_t>(value);
    return 0;
}

int receiveMimeType(int socket, MimeType& mime) {
    unsigned char count = 0;
    mime = {};
    if (receiveCut(socket, mime.type) != 0 || readJ_UInt8(socket, &count) != 0) {
        return -1;
    }
    // More extensions than there is room for are received and dropped: what follows is still in
    // step.
    char dropped[sizeof mime.postfixes[0]];
    for (int i = 0; i < count; ++i) {
        auto& field = i < KP_Config::kMaxPostfixes ? mime.postfixes[i] : dropped;
        if (receiveCut(socket, field) != 0) {
            return -1;
        }
    }
    mime.numOfPostfixes =
        static_cast<unsigned char>(std::min<int>(count, KP_Config::kMaxPostfixes));
    return 0;
}

// Receives an address; @p which is its number in the log line about a malformed one, and
// @p allOnes says whether 255.255.255.255 is one.
int receiveAddress(int socket, int which, bool allOnes, std::uint32_t* address) {
    char line[kLine];
    if (!receiveLine(socket, line)) {
        return -1;
    }
    const std::uint32_t parsed = kp::platform::parseAddress(line);
    if (parsed == kNoAddress && !(allOnes && std::strcmp(line, "255.255.255.255") == 0)) {
        KP_Log::ret("hcommand_SET_CONFIG: Malformed IP Address(%d): %s", which,
                    kp::detail::makePrintable(line));
        return -1;
    }
    *address = parsed;
    return 0;
}

}  // namespace

int KP_Config::writeJ(int socket) {
    const int mappings = mimeTypes != nullptr ? numOfMimeTypes : 0;
    const int nets = std::min<int>(numOfNets, kMaxNets);
    if (writeJ_UInt32(socket, configVersion) != 0 || sendText(socket, device) != 0 ||
        writeJ_UInt32(socket, connectionPort) != 0 || sendText(socket, filterProgram) != 0 ||
        writeJ_UInt32(socket, daysOfDataToKeep) != 0 ||
        writeJ_UInt16(socket, static_cast<unsigned short>(mappings)) != 0) {
        return -1;
    }
    for (int i = 0; i < mappings; ++i) {
        if (sendMimeType(socket, mimeTypes[i]) != 0) {
            return -1;
        }
    }
    if (sendText(socket, password) != 0 || writeJ_Boolean(socket, applyNetAddress) != 0 ||
        writeJ_UInt16(socket, static_cast<unsigned short>(nets)) != 0) {
        return -1;
    }
    for (int i = 0; i < nets; ++i) {
        if (sendAddress(socket, exampleAddress[i]) != 0 ||
            sendAddress(socket, maskAddress[i]) != 0) {
            return -1;
        }
    }
    return 0;
}

int KP_Config::readJ(int socket) {
    unsigned short mappings = 0;
    if (receiveNumber(socket, &configVersion) != 0 || receiveField(socket, device) != 0 ||
        receiveNumber(socket, &connectionPort) != 0 || receiveField(socket, filterProgram) != 0 ||
        receiveNumber(socket, &daysOfDataToKeep) != 0 || readJ_UInt16(socket, &mappings) != 0) {
        return -1;
    }
    // All at once: 65535 records are 21 MB, of which the system gives only what is written to.
    auto* const records =
        static_cast<MimeType*>(mappings != 0 ? std::calloc(mappings, sizeof(MimeType)) : nullptr);
    if (records == nullptr && mappings != 0) {
        KP_Log::ret("hcommand_SET_CONFIG: Not enough memory.");
        return -1;
    }
    mimeTypes = records;
    numOfMimeTypes = mappings;
    for (int i = 0; i < mappings; ++i) {
        if (receiveMimeType(socket, mimeTypes[i]) != 0) {
            return -1;
        }
    }

    int apply = 0;
    unsigned short nets = 0;
    if (receiveField(socket, password) != 0 || readJ_Boolean(socket, &apply) != 0) {
        return -1;
    }
    applyNetAddress = apply;
    if (readJ_UInt16(socket, &nets) != 0) {
        return -1;
    }
    if (nets > kMaxNets) {
        KP_Log::ret("hcommand_SET_CONFIG: more than %d networks", kMaxNets);
        return -1;
    }
    numOfNets = nets;
    for (int i = 0; i < nets; ++i) {
        if (receiveAddress(socket, 1, false, &exampleAddress[i]) != 0 ||
            receiveAddress(socket, 2, true, &maskAddress[i]) != 0) {
            return -1;
        }
    }
    return 0;
}
