// The administrator configuration: reading and checking the installation file.
#include "kp/config/config_admin.h"

#include <cstdio>
#include <cstring>

#include "kp/core/log.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"
#include "tools/parsing.h"

namespace {

constexpr const char* kDefault = "default";
constexpr std::uint32_t kDefaultPort = 8189;
constexpr long kLowestPort = 255;
constexpr long kHighestPort = 65535;
constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;

enum Key { kPort, kDevice, kDatabase, kRange };

bool isDefault(const char* value) {
    return std::strcmp(value, kDefault) == 0;
}

std::uint32_t parseBound(char* text) {
    const std::uint32_t bound = kp::platform::parseAddress(text);
    if (bound == kNoAddress) {
        KP_Log::quit("Invalid address in Install.cfg: %s", kp::detail::makePrintable(text));
    }
    return bound;
}

// Takes the value of one "range" line.
void addRange(char* value, void* userData) {
    auto* config = static_cast<KP_ConfigAdmin*>(userData);
    if (isDefault(value)) {
        KP_Log::ret("IP address ranges not defined.");
        KP_Log::quit("Run configure script.");
    }
    char* low = KP_Tools::squeeze(value, nullptr, 1, nullptr);
    char* space = std::strchr(low, ' ');
    if (space == nullptr) {
        KP_Log::quit("Invalid syntax in Install.cfg: %s", kp::detail::makePrintable(low));
    }
    *space = '\0';
    char* high = space + 1;
    high += std::strspn(high, " \t");
    const std::uint32_t min = parseBound(low);
    const std::uint32_t max = parseBound(high);
    if (min > max) {
        KP_Log::ret("Error in Install.cfg");
        KP_Log::quit("Minimum address is greater than maximum address: %s", low);
    }
    if (config->numOfIPRanges >= KP_Config::kMaxIPRanges) {
        KP_Log::quit("Too many ranges in Install.cfg: at most %d", KP_Config::kMaxIPRanges);
    }
    config->ipRanges[config->numOfIPRanges++] = {min, max};
}

// Takes the database directory if it exists.
void takeDatabase(KP_ConfigAdmin& config, const char* value) {
    char path[sizeof config.databaseDir];
    if (isDefault(value)) {
        std::snprintf(path, sizeof path, "%s/db", KP_Tools::getInstallDir());
    } else {
        std::snprintf(path, sizeof path, "%s", value);
    }
    if (!kp::platform::isDirectory(path)) {
        KP_Log::quit("readAdminConfigFile: can't open database directory\n %s", path);
    }
    std::memcpy(config.databaseDir, path, sizeof path);
}

void takeDevice(KP_ConfigAdmin& config, const char* value) {
    std::snprintf(config.device, sizeof config.device, "%s", isDefault(value) ? "" : value);
    if (KP_Tools::testPromiscEthernet(config.device) == 0) {
        KP_Log::quit("Couldn't open Ethernet device in promiscuous mode.");
    }
}

// Takes the port if it is a number in range and nobody else has it.
void takePort(KP_ConfigAdmin& config, const char* value) {
    long port = kDefaultPort;
    if (!isDefault(value)) {
        port = 0;
        for (const char* digit = value; *digit != '\0'; ++digit) {
            if (*digit < '0' || *digit > '9') {
                KP_Log::quit("Capture engine port not a number");
            }
            // One beyond the highest port says as much as all beyond it, and cannot overflow.
            port = port > kHighestPort ? port : port * 10 + (*digit - '0');
        }
        if (port < kLowestPort || port > kHighestPort) {
            KP_Log::quit("Capture engine port out of range.");
        }
    }
    config.connectionPort = static_cast<std::uint32_t>(port);
    if (KP_Tools::testSocket(static_cast<int>(port)) == 0) {
        KP_Log::quit("Capture engine port already in use.");
    }
}

}  // namespace

KP_ConfigAdmin::~KP_ConfigAdmin() = default;

int KP_ConfigAdmin::init() {
    KP_Config::reset();
    char fileName[sizeof name + 16];
    std::snprintf(fileName, sizeof fileName, "%s_prvt.cfg", name);
    std::FILE* file = openConfigFile("/admin", fileName, "r");
    readGeneralConfigFile(file);
    std::fclose(file);

    std::snprintf(fileName, sizeof fileName, "%sInstall.cfg", name);
    file = openConfigFile("/admin", fileName, "r");
    readAdminConfigFile(file);
    std::fclose(file);
    return 0;
}

int KP_ConfigAdmin::readAdminConfigFile(std::FILE* file) {
    numOfIPRanges = 0;
    KP_Tools::Configuration table[] = {{"port", "default", nullptr},
                                       {"device", "default", nullptr},
                                       {"dbpath", "default", nullptr},
                                       {"range", "default", addRange},
                                       {nullptr, "", nullptr}};
    const char* refused = kp::detail::readKeyedFile(file, table, this);
    if (refused != nullptr) {
        KP_Log::quit("readAdminConfigFile: the value of %s is too long", refused);
    }
    takeDatabase(*this, table[kDatabase].value);
    takeDevice(*this, table[kDevice].value);
    takePort(*this, table[kPort].value);
    return 0;
}

KP_ConfigAdmin* KP_ConfigAdmin::create() {
    return kp::createAndInit<KP_ConfigAdmin>();
}
