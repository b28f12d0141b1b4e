// The general configuration file: opening, reading and writing it.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kp/config/config.h"
#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"
#include "tools/parsing.h"

namespace {

constexpr int kLine = 1024;
constexpr int kFlagLine = 128;
constexpr int kPathSize = 1024;
constexpr const char* kBlanks = " \t";
constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

// Reads a file of fixed lines; a file that ends too early ends the process.
class LineFile {
public:
    explicit LineFile(std::FILE* file) : file_(file) {}

    // Reads the next line, at most max characters; a longer one goes on as the line after it. A
    // last line without a line feed counts if its value is closed: half an address can be an
    // address.
    void read(char* buffer, int max) {
        ++line_;
        if (KP_Tools::getline(file_, buffer, max) == -1 && std::strchr(buffer, '}') == nullptr) {
            KP_Log::quit("readGeneralConfigFile: the file is cut off in line %d", line_);
        }
    }

    void skip(int lines) {
        char dropped[kLine + 1];
        for (int i = 0; i < lines; ++i) {
            read(dropped, kLine);
        }
    }

    // Reads a decimal number behind any white space, line ends included, and drops the rest of its
    // line. The number wraps at 32 bits. Returns whether there was one.
    bool readNumber(std::uint32_t* number) {
        int c = std::getc(file_);
        for (; c != EOF && std::isspace(c) != 0; c = std::getc(file_)) {
            line_ += c == '\n' ? 1 : 0;
        }
        const bool negative = c == '-';
        if (c == '-' || c == '+') {
            c = std::getc(file_);
        }
        bool found = false;
        std::uint32_t value = 0;
        for (; c >= '0' && c <= '9'; c = std::getc(file_)) {
            value = value * 10 + static_cast<std::uint32_t>(c - '0');
            found = true;
        }
        std::ungetc(c, file_);
        skip(1);
        *number = negative ? 0 - value : value;
        return found;
    }

    std::uint32_t requireNumber() {
        std::uint32_t number = 0;
        if (!readNumber(&number)) {
            KP_Log::quit("readGeneralConfigFile: no number in line %d", line_);
        }
        return number;
    }

private:
    std::FILE* file_;
    int line_ = 0;
};

// Takes the next piece off a text that is split at runs of blanks and tabs; "" when none is left.
char* nextPiece(char** rest) {
    char* piece = *rest + std::strspn(*rest, kBlanks);
    char* end = piece + std::strcspn(piece, kBlanks);
    *rest = *end != '\0' ? end + 1 : end;
    *end = '\0';
    return piece;
}

template <std::size_t Size>
void copyCut(char (&target)[Size], const char* text) {
    std::snprintf(target, Size, "%s", text);
}

// The same for a text that may mean something else when it is cut: the log tells.
template <std::size_t Size>
void copyCutLogged(char (&target)[Size], const char* text, const char* what) {
    if (std::strlen(text) >= Size) {
        KP_Log::ret("readGeneralConfigFile: the %s has more than %d characters and was cut", what,
                    static_cast<int>(Size - 1));
    }
    copyCut(target, text);
}

// The value of a `label{value}` line, "" when there is none.
char* valueOf(char* line) {
    static char none[1] = "";
    char* value = KP_Tools::getConfigValue(nullptr, line);
    return value != nullptr ? value : none;
}

std::int32_t numberOf(char* line) {
    return static_cast<std::int32_t>(std::strtol(valueOf(line), nullptr, 10));
}

void readMimeType(LineFile& lines, KP_Config::MimeType& mime) {
    char line[kLine + 1];
    lines.read(line, kLine);
    char* rest = line;
    copyCut(mime.type, nextPiece(&rest));
    int count = 0;
    for (char* piece = nextPiece(&rest); *piece != '\0'; piece = nextPiece(&rest)) {
        if (count == KP_Config::kMaxPostfixes) {
            KP_Log::quit("readGeneralConfigFile: Maximum # of postfixes/type = %d",
                         KP_Config::kMaxPostfixes);
        }
        copyCut(mime.postfixes[count], piece);
        KP_Tools::toLowerCase(mime.postfixes[count]);
        ++count;
    }
    mime.numOfPostfixes = static_cast<unsigned char>(count);
}

// Reads a line of addresses; @p allOnes says whether 255.255.255.255 is one.
void readAddresses(LineFile& lines, std::uint32_t* addresses, int count, bool allOnes) {
    char line[kLine + 1];
    lines.read(line, kLine);
    if (count == 0) {
        return;
    }
    char* rest = valueOf(line);
    for (int i = 0; i < count; ++i) {
        char* piece = nextPiece(&rest);
        addresses[i] = kp::platform::parseAddress(piece);
        if (addresses[i] == kNoAddress &&
            !(allOnes && std::strcmp(piece, "255.255.255.255") == 0)) {
            KP_Log::quit("readGeneralConfigFile: Malformed IP Address: %s",
                         kp::detail::makePrintable(piece));
        }
    }
}

void writeAddresses(std::FILE* file, const char* label, const std::uint32_t* addresses, int count) {
    KP_Log::flog(file, "%s{", label);
    for (int i = 0; i < count; ++i) {
        char dotted[16];
        KP_Tools::IPAddressString(addresses[i], dotted);
        KP_Log::flog(file, "%s%s", dotted, i + 1 < count ? " " : "");
    }
    KP_Log::flog(file, "}\n");
}

[[noreturn]] void quitOpening(const char* path, int error) {
    switch (error) {
        case EACCES:
        case EISDIR:
            KP_Log::quit("%s: Permision denied", path);
        case EMFILE:
        case ENFILE:
            KP_Log::quit("%s: Too many files already open", path);
        case ENAMETOOLONG:
            KP_Log::quit("%s: Path too long", path);
        default:
            KP_Log::ret(" ");
            errno = error;
            std::perror(nullptr);
            KP_Log::quit("%s: Problem opening file", path);
    }
}

}  // namespace

std::FILE* KP_Config::openConfigFile(const char* dir, const char* fileName, const char* mode) {
    char path[kPathSize];
    const int directory = std::snprintf(path, sizeof path, "%s%s", KP_Tools::getInstallDir(), dir);
    if (directory < 0 || directory >= kPathSize || !kp::platform::isDirectory(path)) {
        KP_Log::quit("openConfigFile: %s can't open directory", path);
    }
    const int added = std::snprintf(path + directory, sizeof path - directory, "/%s", fileName);
    if (added < 0 || directory + added >= kPathSize) {
        quitOpening(path, ENAMETOOLONG);
    }
    std::FILE* file = kp::platform::openConfigurationFile(path, mode);
    if (file == nullptr) {
        quitOpening(path, errno);
    }
    return file;
}

int KP_Config::readGeneralConfigFile(std::FILE* file) {
    LineFile lines(file);
    lines.skip(4);
    configVersion = 1;
    lines.skip(1);
    std::uint32_t number = 0;
    lines.readNumber(&number);  // The version in the file; nothing depends on it yet.
    lines.skip(2);

    char flag[kFlagLine + 1];
    lines.read(flag, kFlagLine);
    netStatsEnabled = std::strtol(flag, nullptr, 10) != 0 ? 1 : 0;
    lines.skip(2);
    char line[kLine + 1];
    lines.read(line, kLine);
    copyCutLogged(filterProgram, line, "filter");
    lines.skip(2);
    number = lines.requireNumber();
    lines.skip(1);
    daysOfDataToKeep = number;

    lines.skip(1);
    KP_Config::reset();
    const auto mappings = static_cast<std::uint16_t>(lines.requireNumber());
    lines.skip(2);
    if (mappings != 0) {
        mimeTypes = static_cast<MimeType*>(std::calloc(mappings, sizeof(MimeType)));
        if (mimeTypes == nullptr) {
            KP_Log::quit("readGeneralConfigFile: no memory");
        }
    }
    numOfMimeTypes = mappings;
    for (int i = 0; i < mappings; ++i) {
        readMimeType(lines, mimeTypes[i]);
    }

    lines.skip(2);
    lines.read(line, kLine);
    copyCutLogged(password, valueOf(line), "password");
    lines.read(line, kLine);
    applyNetAddress = numberOf(line);
    lines.read(line, kLine);
    const auto nets = static_cast<std::uint16_t>(numberOf(line));
    if (nets > kMaxNets) {
        KP_Log::quit("readGeneralConfigFile: too many networks");
    }
    numOfNets = nets;
    readAddresses(lines, exampleAddress, numOfNets, false);
    readAddresses(lines, maskAddress, numOfNets, true);
    for (int i = 0; i < numOfNets; ++i) {
        netAddress[i] = exampleAddress[i] & maskAddress[i];
    }
    return 0;
}

int KP_Config::save() {
    char fileName[sizeof name + 16];
    std::snprintf(fileName, sizeof fileName, "%s_prvt.cfg", name);
    std::FILE* file = openConfigFile("/admin", fileName, "w");

    const int mappings = mimeTypes != nullptr ? numOfMimeTypes : 0;

    // Written through the file's buffer and flushed once: a flush for each of a thousand mappings
    // would cost more than everything else.
    std::fprintf(file,
                 "-------------------------------------------------------\n"
                 "WARNING! This is a machine generated file. DO NOT EDIT.\n"
                 "-------------------------------------------------------\n\n");
    std::fprintf(file, "# Config version\n%u\n\n", 1U);
    std::fprintf(file, "# Net 1=On 0=Off\n%d\n\n", netStatsEnabled != 0 ? 1 : 0);
    std::fprintf(file, "# BPF filter string\n%s\n\n", filterProgram);
    std::fprintf(file, "# Days of data to keep\n%d\n\n",
                 static_cast<std::int32_t>(daysOfDataToKeep));
    std::fprintf(file, "# HTTP RealTime: Number of MIME type file extension mappings\n%d\n\n",
                 mappings);
    std::fprintf(file, "# HTTP RealTime: MIME type file extension mappings\n");
    for (int i = 0; i < mappings; ++i) {
        MimeType& mime = mimeTypes[i];
        std::fprintf(file, "%s\t\t\t", mime.type);
        for (int j = 0; j < std::min<int>(mime.numOfPostfixes, kMaxPostfixes); ++j) {
            KP_Tools::toLowerCase(mime.postfixes[j]);
            std::fprintf(file, "%s ", mime.postfixes[j]);
        }
        std::fputc('\n', file);
    }
    std::fputc('\n', file);
    writeUser(file);
    std::fclose(file);
    return 0;
}

int KP_Config::writeUser(std::FILE* file) {
    const int nets = std::min<int>(numOfNets, kMaxNets);
    KP_Log::flog(file, "# Root user\n");
    KP_Log::flog(file, "password{%s}\n", password);
    KP_Log::flog(file, "applyNetAddress{%d}\n", applyNetAddress);
    KP_Log::flog(file, "numOfNets{%d}\n", nets);
    writeAddresses(file, "exampleAddress", exampleAddress, nets);
    writeAddresses(file, "maskAddress", maskAddress, nets);
    KP_Log::flog(file, "\n");
    return 0;
}
