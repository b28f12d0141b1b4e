#include "settings.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace kp::configure {

namespace {

constexpr std::uint32_t kAllOnes = 0xFFFFFFFF;
constexpr std::size_t kLongestDirectory = 255;
constexpr std::size_t kLongestKeyedValue = 127;
constexpr std::uint32_t kLowestPort = 255;
constexpr std::uint32_t kHighestPort = 65535;
constexpr std::uint32_t kMostDays = 2147483647;
constexpr std::size_t kMostMimeTypes = 65535;
constexpr int kSnapLength = 65535;

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

// Refuses a text that its place in a file cannot hold.
void checkText(const std::string& what, const std::string& text, std::size_t longest) {
    if (text.size() > longest) {
        refuse(what + " has more than " + std::to_string(longest) + " characters");
    }
    if (hasControls(text)) {
        refuse(what + " contains control characters");
    }
}

// The installation file drops blanks within a value and separators before it.
void checkKeyedValue(const std::string& what, const std::string& text) {
    checkText(what, text, kLongestKeyedValue);
    if (hasBlanks(text) || (!text.empty() && (text[0] == ':' || text[0] == '='))) {
        refuse(what + " '" + text + "' contains a blank or begins with ':' or '='");
    }
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

void checkFilter(const std::string& filter) {
    pcap_t* dead = ::pcap_open_dead(DLT_EN10MB, kSnapLength);
    if (dead == nullptr) {
        throw std::bad_alloc();
    }
    bpf_program program = {};
    std::string error;
    if (::pcap_compile(dead, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0) {
        ::pcap_freecode(&program);
    } else {
        error = ::pcap_geterr(dead);
    }
    ::pcap_close(dead);
    if (!error.empty()) {
        refuse("the filter '" + filter + "' is not a packet filter: " + error);
    }
}

void applyRanges(const Settings& settings, KP_Config& config) {
    if (settings.ranges.size() > KP_Config::kMaxIPRanges) {
        refuse("more than " + std::to_string(KP_Config::kMaxIPRanges) + " ranges");
    }
    config.numOfIPRanges = 0;
    for (const std::string& text : settings.ranges) {
        config.ipRanges[config.numOfIPRanges++] = parseRange(text);
    }
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

void applyMimeTypes(const Settings& settings, KP_Config& config) {
    config.reset();
    if (settings.mimeTypes.empty()) {
        return;
    }
    if (settings.mimeTypes.size() > kMostMimeTypes) {
        refuse("more than " + std::to_string(kMostMimeTypes) + " MIME types");
    }
    std::vector<KP_Config::MimeType> records;
    for (const std::string& text : settings.mimeTypes) {
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

void applyNetworks(const Settings& settings, KP_Config& config) {
    if (settings.networks.size() > KP_Config::kMaxNets) {
        refuse("more than " + std::to_string(KP_Config::kMaxNets) + " networks");
    }
    config.numOfNets = 0;
    for (const std::string& text : settings.networks) {
        const std::size_t slash = text.find('/');
        if (slash == std::string::npos) {
            refuse("'" + text + "' is not ADDRESS/MASK");
        }
        const std::uint32_t address = parseAddress(text.substr(0, slash), text);
        const std::string maskText = text.substr(slash + 1);
        const int bits = parseBits(maskText);
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

void checkName(const std::string& name) {
    const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-';
    });
    if (name.empty() || !plain || name.size() >= sizeof KP_Config::name) {
        refuse("the name '" + name + "' is not made of 1 to " +
               std::to_string(sizeof KP_Config::name - 1) + " letters, digits, '.', '_' and '-'");
    }
}

void checkPassword(const std::string& password) {
    if (password.empty()) {
        refuse("the password is empty");
    }
    checkText("the password", password, sizeof KP_Config::password - 1);
    if (password.find_first_of("{}") != std::string::npos) {
        refuse("the password contains a brace, which the configuration file cannot hold");
    }
}

}  // namespace

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
        refuse("the range '" + text + "' contains 255.255.255.255, which is no host's address");
    }
    return range;
}

void apply(const Settings& settings, KP_Config& config) {
    if (settings.directory.size() > kLongestDirectory) {
        refuse("the directory has more than " + std::to_string(kLongestDirectory) + " characters");
    }
    checkName(settings.name);
    checkKeyedValue("the device", settings.device);
    checkKeyedValue("the database path", settings.databasePath);
    if (settings.port < kLowestPort || settings.port > kHighestPort) {
        refuse("the port is not from " + std::to_string(kLowestPort) + " to " +
               std::to_string(kHighestPort));
    }
    if (settings.days < 1 || settings.days > kMostDays) {
        refuse("the days are not from 1 to " + std::to_string(kMostDays));
    }
    checkText("the filter", settings.filter, sizeof config.filterProgram - 1);
    checkFilter(settings.filter);
    checkPassword(settings.password);

    applyRanges(settings, config);
    applyMimeTypes(settings, config);
    applyNetworks(settings, config);
    config.setName(settings.name.c_str());
    config.daysOfDataToKeep = settings.days;
    store(config.filterProgram, settings.filter);
    store(config.password, settings.password);
}

}  // namespace kp::configure
