#include "settings.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace kp::programs {

namespace {

constexpr std::uint32_t kAllOnes = 0xFFFFFFFF;
constexpr std::uint32_t kMostDays = 2147483647;
constexpr std::size_t kMostMimeTypes = 65535;

[[noreturn]] void refuse(const std::string& why) {
    throw SettingError(why);
}

bool hasControls(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

bool hasBlanks(const std::string& text) {
    return text.find(' ') != std::string::npos;
}

template <std::size_t Size>
void store(char (&field)[Size], const std::string& text) {
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), std::min(text.size(), Size - 1));
}

std::uint32_t parseAddress(const std::string& text, const std::string& within) {
    in_addr address = {};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        refuse("'" + text + "' in '" + within + "' is not an address");
    }
    return ntohl(address.s_addr);
}

// A mask of so many leading ones.
std::uint32_t maskOfBits(int bits) {
    return bits == 0 ? 0 : kAllOnes << (32 - bits);
}

// The number of leading bits, -1 when @p text is no such number.
int parseBits(const std::string& text) {
    int bits = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, bits);
    return error == std::errc() && stop == end && bits >= 0 && bits <= 32 ? bits : -1;
}

KP_Config::MimeType parseMimeType(const std::string& text) {
    const std::size_t separator = text.find('=');
    if (separator == std::string::npos || separator == 0) {
        refuse("'" + text + "' is not TYPE=EXT,EXT");
    }
    KP_Config::MimeType mime = {};
    const std::string type = text.substr(0, separator);
    checkText("the type in '" + text + "'", type, sizeof mime.type - 1);
    if (hasBlanks(text)) {
        refuse("'" + text + "' contains a blank");
    }
    store(mime.type, type);
    for (std::size_t start = separator + 1; separator + 1 < text.size() && start <= text.size();) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        const std::string extension = text.substr(start, end - start);
        if (extension.empty()) {
            refuse("'" + text + "' has an empty extension");
        }
        if (mime.numOfPostfixes == KP_Config::kMaxPostfixes) {
            refuse("'" + text + "' has more than " + std::to_string(KP_Config::kMaxPostfixes) +
                   " extensions");
        }
        auto& postfix = mime.postfixes[mime.numOfPostfixes++];
        checkText("the extension '" + extension + "'", extension, sizeof postfix - 1);
        store(postfix, extension);
        start = end + 1;
    }
    return mime;
}

}  // namespace

void checkText(const std::string& what, const std::string& text, std::size_t longest) {
    if (text.size() > longest) {
        refuse(what + " has more than " + std::to_string(longest) + " characters");
    }
    if (hasControls(text)) {
        refuse(what + " contains control characters");
    }
}

KP_Config::IPRange parseRange(const std::string& text) {
    KP_Config::IPRange range = {};
    const std::size_t slash = text.find('/');
    const std::size_t hyphen = text.find('-');
    if (slash != std::string::npos) {
        const int bits = parseBits(text.substr(slash + 1));
        if (bits < 0) {
            refuse("'" + text + "' is not A.B.C.D/BITS");
        }
        range.min = parseAddress(text.substr(0, slash), text) & maskOfBits(bits);
        range.max = range.min | ~maskOfBits(bits);
    } else if (hyphen != std::string::npos) {
        range.min = parseAddress(text.substr(0, hyphen), text);
        range.max = parseAddress(text.substr(hyphen + 1), text);
    } else {
        refuse("'" + text + "' is neither LOW-HIGH nor A.B.C.D/BITS");
    }
    if (range.min > range.max) {
        refuse("the range '" + text + "' ends before it begins");
    }
    if (range.max == kAllOnes) {
        refuse("the range '" + text + "' contains 255.255.255.255, which is not a host address");
    }
    return range;
}

void setRanges(KP_Config& config, const std::vector<std::string>& texts) {
    if (texts.size() > KP_Config::kMaxIPRanges) {
        refuse("more than " + std::to_string(KP_Config::kMaxIPRanges) + " ranges");
    }
    config.numOfIPRanges = 0;
    for (const std::string& text : texts) {
        config.ipRanges[config.numOfIPRanges++] = parseRange(text);
    }
}

void setFilter(KP_Config& config, const std::string& filter) {
    checkText("the filter", filter, sizeof config.filterProgram - 1);
    store(config.filterProgram, filter);
}

void setDays(KP_Config& config, std::uint32_t days) {
    if (days < 1 || days > kMostDays) {
        refuse("the days must be from 1 to " + std::to_string(kMostDays));
    }
    config.daysOfDataToKeep = days;
}

void setMimeTypes(KP_Config& config, const std::vector<std::string>& texts) {
    config.reset();
    if (texts.empty()) {
        return;
    }
    if (texts.size() > kMostMimeTypes) {
        refuse("more than " + std::to_string(kMostMimeTypes) + " MIME types");
    }
    std::vector<KP_Config::MimeType> records;
    records.reserve(texts.size());
    for (const std::string& text : texts) {
        records.push_back(parseMimeType(text));
    }
    const std::size_t bytes = records.size() * sizeof(KP_Config::MimeType);
    config.mimeTypes = static_cast<KP_Config::MimeType*>(std::malloc(bytes));
    if (config.mimeTypes == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(config.mimeTypes, records.data(), bytes);
    config.numOfMimeTypes = static_cast<std::uint16_t>(records.size());
}

void setNetworks(KP_Config& config, const std::vector<std::string>& texts) {
    if (texts.size() > KP_Config::kMaxNets) {
        refuse("more than " + std::to_string(KP_Config::kMaxNets) + " networks");
    }
    config.numOfNets = 0;
    for (const std::string& text : texts) {
        const std::size_t slash = text.find('/');
        if (slash == std::string::npos) {
            refuse("'" + text + "' is neither ADDRESS/MASK nor ADDRESS/BITS");
        }
        const std::uint32_t address = parseAddress(text.substr(0, slash), text);
        const std::string maskText = text.substr(slash + 1);
        const int bits = parseBits(maskText);
        if (bits < 0 && maskText.find('.') == std::string::npos) {
            refuse("'" + text + "' is neither ADDRESS/MASK nor ADDRESS/BITS");
        }
        const std::uint32_t mask = bits >= 0 ? maskOfBits(bits) : parseAddress(maskText, text);
        if (address == kAllOnes) {
            refuse("255.255.255.255 in '" + text + "' is not the address of a network");
        }
        const int i = config.numOfNets++;
        config.exampleAddress[i] = address;
        config.maskAddress[i] = mask;
        config.netAddress[i] = address & mask;
    }
    config.applyNetAddress = config.numOfNets > 0 ? 1 : 0;
}

void setPassword(KP_Config& config, const std::string& password) {
    if (password.empty()) {
        refuse("the password is empty");
    }
    checkText("the password", password, sizeof KP_Config::password - 1);
    if (password.find_first_of("{}") != std::string::npos) {
        refuse("the password contains a brace, which the configuration file cannot hold");
    }
    store(config.password, password);
}

}  // namespace kp::programs
