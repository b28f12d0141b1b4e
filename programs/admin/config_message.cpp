#include "config_message.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kp::admin {

namespace {

using MimeType = KP_Config::MimeType;

constexpr int kLine = 2048;

// Receives a line, which has to fit into the field.
template <std::size_t Size>
bool receiveText(int socket, char (&field)[Size]) {
    char line[kLine];
    const int length = readJ_line(socket, line, kLine);
    if (length < 0 || static_cast<std::size_t>(length) >= Size)
        return false;
    std::memcpy(field, line, static_cast<std::size_t>(length) + 1);
    return true;
}

bool receiveNumber(int socket, std::uint32_t& number) {
    unsigned long value = 0;
    if (readJ_UInt32(socket, &value) != 0)
        return false;
    number = static_cast<std::uint32_t>(value);
    return true;
}

bool receiveAddress(int socket, std::uint32_t& address) {
    char line[32];
    if (!receiveText(socket, line))
        return false;
    in_addr parsed{};
    if (::inet_pton(AF_INET, line, &parsed) != 1)
        return false;
    address = ntohl(parsed.s_addr);
    return true;
}

bool receiveMimeType(int socket, MimeType& mime) {
    if (!receiveText(socket, mime.type) || readJ_UInt8(socket, &mime.numOfPostfixes) != 0 ||
        mime.numOfPostfixes > KP_Config::kMaxPostfixes)
        return false;
    for (int i = 0; i < mime.numOfPostfixes; ++i) {
        if (!receiveText(socket, mime.postfixes[i]))
            return false;
    }
    return true;
}

bool receiveMimeTypes(int socket, KP_Config& config) {
    unsigned short count = 0;
    if (readJ_UInt16(socket, &count) != 0)
        return false;
    std::vector<MimeType> received;  // grows as they come: a count may be a lie
    for (int i = 0; i < count; ++i) {
        received.emplace_back();
        if (!receiveMimeType(socket, received.back()))
            return false;
    }
    config.reset();
    if (received.empty())
        return true;
    const std::size_t bytes = received.size() * sizeof(MimeType);
    config.mimeTypes = static_cast<MimeType*>(std::malloc(bytes));
    if (config.mimeTypes == nullptr)
        return false;
    std::memcpy(config.mimeTypes, received.data(), bytes);
    config.numOfMimeTypes = count;
    return true;
}

bool receiveNetworks(int socket, KP_Config& config) {
    unsigned char apply = 0;
    unsigned short count = 0;
    if (readJ_UInt8(socket, &apply) != 0 || readJ_UInt16(socket, &count) != 0 ||
        count > KP_Config::kMaxNets)
        return false;
    config.applyNetAddress = apply;
    config.numOfNets = count;
    for (int i = 0; i < count; ++i) {
        if (!receiveAddress(socket, config.exampleAddress[i]) ||
            !receiveAddress(socket, config.maskAddress[i]))
            return false;
        config.netAddress[i] = config.exampleAddress[i] & config.maskAddress[i];
    }
    return true;
}

bool sendText(int socket, const char* text) {
    const std::string line = std::string(text) + "\n";
    const int size = static_cast<int>(line.size());
    return writeJ_n_chars(socket, line.data(), size) == size;
}

bool sendAddress(int socket, std::uint32_t address) {
    char dotted[16];
    KP_Tools::IPAddressString(address, dotted);
    return sendText(socket, dotted);
}

bool sendMimeTypes(int socket, const KP_Config& config) {
    bool isGood = writeJ_UInt16(socket, config.numOfMimeTypes) == 0;
    for (int i = 0; i < config.numOfMimeTypes && isGood; ++i) {
        const MimeType& mime = config.mimeTypes[i];
        isGood = sendText(socket, mime.type) && writeJ_UInt8(socket, mime.numOfPostfixes) == 0;
        for (int p = 0; p < mime.numOfPostfixes && isGood; ++p)
            isGood = sendText(socket, mime.postfixes[p]);
    }
    return isGood;
}

bool sendNetworks(int socket, const KP_Config& config) {
    const char apply = config.applyNetAddress != 0 ? 1 : 0;
    bool isGood =
        writeJ_n_chars(socket, &apply, 1) == 1 && writeJ_UInt16(socket, config.numOfNets) == 0;
    for (int i = 0; i < config.numOfNets && isGood; ++i)
        isGood = sendAddress(socket, config.exampleAddress[i]) &&
                 sendAddress(socket, config.maskAddress[i]);
    return isGood;
}

}  // namespace

bool receiveConfig(int socket, KP_Config& config) {
    return receiveNumber(socket, config.configVersion) && receiveText(socket, config.device) &&
           receiveNumber(socket, config.connectionPort) &&
           receiveText(socket, config.filterProgram) &&
           receiveNumber(socket, config.daysOfDataToKeep) && receiveMimeTypes(socket, config) &&
           receiveText(socket, config.password) && receiveNetworks(socket, config);
}

bool sendConfig(int socket, const KP_Config& config) {
    return writeJ_UInt32(socket, config.configVersion) == 0 && sendText(socket, config.device) &&
           writeJ_UInt32(socket, config.connectionPort) == 0 &&
           sendText(socket, config.filterProgram) &&
           writeJ_UInt32(socket, config.daysOfDataToKeep) == 0 && sendMimeTypes(socket, config) &&
           sendText(socket, config.password) && sendNetworks(socket, config);
}

}  // namespace kp::admin
