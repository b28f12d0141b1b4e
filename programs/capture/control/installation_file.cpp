#include "control/installation_file.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "control/installation.h"

namespace kp::capture {

namespace {

constexpr std::size_t kLongestValue = 127;
constexpr int kLowestPort = 255;
constexpr int kHighestPort = 65535;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// The first fault counts, as it would have ended the process.
struct Reading {
    InstallationFile file;
    std::string fault;

    void fail(const std::string& why) {
        if (fault.empty())
            fault = why;
    }
};

Reading& readingOf(void* userData) {
    return *static_cast<Reading*>(userData);
}

// As the library keeps values: without the first run of blanks, and a comment right behind that.
void keep(std::string& target, const char* key, const char* value, Reading& reading) {
    std::string text = value;
    const std::size_t blank = text.find(' ');
    if (blank != std::string::npos) {
        const std::size_t rest = std::min(text.find_first_not_of(" \t\n", blank), text.size());
        text = text.substr(0, blank) + (text[rest] == '#' ? "" : text.substr(rest));
    }
    if (text.size() > kLongestValue) {
        reading.fail(std::string("the value of ") + key + " has more than " +
                     std::to_string(kLongestValue) + " characters");
    } else {
        target = text;
    }
}

void keepPort(char* value, void* userData) {
    keep(readingOf(userData).file.port, "port", value, readingOf(userData));
}

void keepDevice(char* value, void* userData) {
    keep(readingOf(userData).file.device, "device", value, readingOf(userData));
}

void keepDatabase(char* value, void* userData) {
    keep(readingOf(userData).file.databaseDir, "dbpath", value, readingOf(userData));
}

void addRange(char* value, void* userData) {
    Reading& reading = readingOf(userData);
    const std::string text = KP_Tools::squeeze(value, nullptr, 1, nullptr);
    const std::size_t blank = text.find(' ');
    if (blank == std::string::npos) {
        reading.fail("the range \"" + text + "\" is not two addresses with a blank between them");
        return;
    }
    const std::size_t second = std::min(text.find_first_not_of(" \t", blank), text.size());
    const std::string bounds[] = {text.substr(0, blank), text.substr(second)};
    std::uint32_t addresses[2] = {};
    for (int i = 0; i < 2; ++i) {
        const in_addr_t address = inet_addr(bounds[i].c_str());
        if (address == INADDR_NONE)
            reading.fail("\"" + bounds[i] + "\" in the range \"" + text + "\" is not an address");
        addresses[i] = ntohl(address);
    }
    if (addresses[0] > addresses[1])
        reading.fail("the range \"" + text + "\" ends before it begins");
    if (reading.file.ranges.size() == KP_Config::kMaxIPRanges)
        reading.fail("more than " + std::to_string(KP_Config::kMaxIPRanges) + " ranges");
    else
        reading.file.ranges.push_back({addresses[0], addresses[1]});
}

void checkPort(const std::string& text, Reading& reading) {
    const std::size_t first = std::min(text.find_first_not_of('0'), text.size());
    const bool isNumber = first < text.size() && text.size() - first <= 5 &&
                          text.find_first_not_of("0123456789", first) == std::string::npos;
    const int port = isNumber ? std::stoi(text.substr(first)) : 0;
    if (text != "default" && (port < kLowestPort || port > kHighestPort)) {
        reading.fail("the port \"" + text + "\" is not a number from " +
                     std::to_string(kLowestPort) + " to " + std::to_string(kHighestPort));
    }
}

void checkDatabase(const std::string& path, Reading& reading) {
    struct stat status {};
    if (path != "default" && (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)))
        reading.fail("the database directory \"" + path + "\" cannot be opened");
}

}  // namespace

InstallationFile readInstallationFile(const std::string& path) {
    const std::unique_ptr<std::FILE, CloseFile> file(KP_Tools::openFile(path.c_str(), "r"));
    if (!file)
        throw InstallationError(path + ": " + std::strerror(errno));
    Reading reading;
    KP_Tools::Configuration table[] = {{"port", "", keepPort},
                                       {"device", "", keepDevice},
                                       {"dbpath", "", keepDatabase},
                                       {"range", "", addRange},
                                       {nullptr, "", nullptr}};
    KP_Tools::readConfig(file.get(), table, &reading);
    if (std::ferror(file.get()) != 0)
        reading.fail("cannot be read to its end");
    checkDatabase(reading.file.databaseDir, reading);
    checkPort(reading.file.port, reading);
    if (!reading.fault.empty())
        throw InstallationError(path + ": " + reading.fault);
    return reading.file;
}

}  // namespace kp::capture
